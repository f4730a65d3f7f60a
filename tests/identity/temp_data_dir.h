// A PROGRAMDATA of the test's own, empty at first and removed at the end.
#ifndef QV_TESTS_IDENTITY_TEMP_DATA_DIR_H
#define QV_TESTS_IDENTITY_TEMP_DATA_DIR_H

#include <chrono>
#include <filesystem>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string>

#ifdef _WIN32
constexpr const char *TEXT_LINE_END = "\r\n"; // what a text-mode stream writes for "\n"
#else
constexpr const char *TEXT_LINE_END = "\n";
#endif

// Sets an environment variable, or with null removes it.
inline void set_environment(const char *name, const char *value)
{
#ifdef _WIN32
    _putenv_s(name, value ? value : "");
#else
    if (value)
        setenv(name, value, 1);
    else
        unsetenv(name);
#endif
}

struct temp_data_dir {
    std::filesystem::path root; // contains everything
    std::string program_data;   // what PROGRAMDATA says

    temp_data_dir()
    {
        uint64_t n = (uint64_t)std::chrono::steady_clock::now().time_since_epoch().count();
        do {
            root = std::filesystem::temp_directory_path() / ("qv_test_" + std::to_string(n++));
        } while (!std::filesystem::create_directory(root));
        program_data = (root / "data").string();
        std::filesystem::create_directory(program_data);
        set_environment("PROGRAMDATA", program_data.c_str());
    }

    ~temp_data_dir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }

    temp_data_dir(const temp_data_dir &) = delete;
    temp_data_dir &operator=(const temp_data_dir &) = delete;

    // Points PROGRAMDATA into a folder that does not exist, where nothing can be made.
    void make_unreachable() const
    {
        set_environment("PROGRAMDATA", (root / "absent" / "data").string().c_str());
    }

    std::string directory() const
    {
        return program_data + "\\qv";
    }

    std::string path(const char *name) const
    {
        return directory() + "\\" + name;
    }

    void make() const
    {
        std::filesystem::create_directory(directory());
    }

    // The file's bytes as they are; "(absent)" without one.
    std::string read(const char *name) const
    {
        return read_file(path(name));
    }

    static std::string read_file(const std::string &path)
    {
        FILE *file = fopen(path.c_str(), "rb");
        if (file == nullptr)
            return "(absent)";
        std::string bytes;
        char piece[4096];
        size_t n;
        while ((n = fread(piece, 1, sizeof piece, file)) > 0)
            bytes.append(piece, n);
        fclose(file);
        return bytes;
    }

    void write(const char *name, const std::string &bytes) const
    {
        make();
        FILE *file = fopen(path(name).c_str(), "wb");
        if (file == nullptr)
            abort();
        fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
    }
};

#endif
