// Windows only
#include "identity/host_files.h"

#include "protocol/win32.h"
#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <aclapi.h>
#include <sddl.h>

// Puts the access control list of a text on a file.
static void set_access(const std::string &path, const char *text)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    REQUIRE(ConvertStringSecurityDescriptorToSecurityDescriptorA(text, SDDL_REVISION_1,
                                                                 &descriptor, nullptr));
    REQUIRE(SetFileSecurityA(path.c_str(), DACL_SECURITY_INFORMATION, descriptor));
    LocalFree(descriptor);
}

// How many entries of a file's access control list give somebody else than the owner, the
// system or administrators any right; -1 when there is no list, which gives everybody all.
static int strangers(const std::string &path)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    PSID owner = nullptr;
    PACL dacl = nullptr;
    REQUIRE(GetNamedSecurityInfoA(path.c_str(), SE_FILE_OBJECT,
                                  OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                  &owner, nullptr, &dacl, nullptr, &descriptor) == 0);
    int count = dacl == nullptr ? -1 : 0;
    for (DWORD i = 0; dacl != nullptr && i < dacl->AceCount; i++) {
        void *ace = nullptr;
        REQUIRE(GetAce(dacl, i, &ace));
        if (((ACE_HEADER *)ace)->AceType != ACCESS_ALLOWED_ACE_TYPE)
            continue;
        PSID sid = (PSID) & ((ACCESS_ALLOWED_ACE *)ace)->SidStart;
        char *text = nullptr;
        REQUIRE(ConvertSidToStringSidA(sid, &text));
        const std::string name = text;
        LocalFree(text);
        const bool expected = EqualSid(sid, owner) || name == "S-1-3-4" /* owner rights */ ||
                              name == "S-1-5-18" /* system */ ||
                              name == "S-1-5-32-544" /* administrators */;
        count += !expected;
    }
    LocalFree(descriptor);
    return count;
}

static const char EVERYBODY[] = "D:P(A;;FA;;;WD)";

TEST_CASE("a new private file is closed to others, whatever its directory gives")
{
    temp_data_dir temp;
    temp.make();
    set_access(temp.directory(), "D:P(A;OICI;FA;;;WD)");
    FILE *file = open_private_file(temp.path("f").c_str());
    REQUIRE(file != nullptr);
    CHECK(strangers(temp.path("f")) == 0); // already while nothing is in it
    fputs("x", file);
    fclose(file);
    CHECK(strangers(temp.path("f")) == 0);
    CHECK(temp.read("f") == "x"); // and open to us
}

TEST_CASE("an existing file that was open to everybody is closed to others")
{
    temp_data_dir temp;
    temp.write("f", "something long");
    set_access(temp.path("f"), EVERYBODY);
    REQUIRE(strangers(temp.path("f")) == 1);
    for (int round = 0; round < 2; round++) {
        FILE *file = open_private_file(temp.path("f").c_str());
        REQUIRE(file != nullptr);
        CHECK(strangers(temp.path("f")) == 0);
        fputs("x", file);
        fclose(file);
        CHECK(temp.read("f") == "x");
    }
}

TEST_CASE("what cannot be restricted is opened all the same")
{
    FILE *file = open_private_file("NUL");
    REQUIRE(file != nullptr);
    CHECK(fputs("x", file) >= 0);
    CHECK(fclose(file) == 0);
}
