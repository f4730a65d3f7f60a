// Labels: threaded
#include "identity/host_identity.h"

#include "tests/identity/temp_data_dir.h"
#include "tests/test.h"

#include <atomic>
#include <string.h>
#include <thread>

// Texts of one repeated character each, of different lengths, made of the characters that
// generated passwords do not have. So a mixture of any two passwords is seen.
static const char marks[] = "01lioIOZ";
constexpr uint32_t MARKS = 8;

static std::string marked(uint32_t i)
{
    return std::string(32 - 3 * i, marks[i]);
}

static bool is_whole(const char *text)
{
    const char *mark = text[0] ? strchr(marks, text[0]) : nullptr;
    if (mark != nullptr)
        return text == marked((uint32_t)(mark - marks));
    return strlen(text) == 8 && strpbrk(text, marks) == nullptr; // a generated one
}

TEST_CASE("a reader sees only whole passwords while two threads change them")
{
    temp_data_dir temp;
    host_identity_init(1);
    std::atomic<uint64_t> reads{0};
    uint64_t broken = 0;
    uint64_t changes_seen = 0;
    char last[HOST_PASSWORD_SIZE] = "";

    // A text that was read stands until TEXT_SLOTS changes later, so each round makes fewer
    // than that: an ordinary machine may leave the reader asleep for the whole of a round.
    constexpr uint32_t each = TEXT_SLOTS / 2 - 2;
    for (uint32_t round = 0; round < 20; round++) {
        std::atomic<uint32_t> finished{0};
        std::thread user([&] {
            for (uint32_t i = 0; i < each; i++) {
                host_set_password(i % 4 == 3 ? "" : marked(i % MARKS).c_str());
                // The reader gets to see each of these: one read that began after the change
                // has ended. Relaxed, so as not to order anything that is tested.
                const uint64_t before = reads.load(std::memory_order_relaxed);
                while (reads.load(std::memory_order_relaxed) < before + 2)
                    std::this_thread::yield();
            }
            finished++;
        });
        std::thread server([&] {
            for (uint32_t i = 0; i < each; i++)
                host_rotate_password(1);
            finished++;
        });
        do {
            char copy[HOST_PASSWORD_SIZE];
            host_copy_password(copy);
            reads.fetch_add(1, std::memory_order_relaxed);
            broken += !is_whole(copy);
            changes_seen += strcmp(copy, last) != 0;
            memcpy(last, copy, sizeof last);
            broken += !is_whole(host_get_password());
        } while (finished != 2);
        user.join();
        server.join();
        // And the file shows the password that stands, whoever wrote it last.
        CHECK(temp.read("host.txt")
                  .find(std::string("password=") + host_get_password() + TEXT_LINE_END) !=
              std::string::npos);
    }
    CHECK(broken == 0);
    CHECK(changes_seen >= 20 * (each - 1)); // of those that the user makes, at least
    MESSAGE(reads.load() << " reads, " << changes_seen << " changes seen");
}

TEST_CASE("a password that a user set stands against rotations on another thread")
{
    temp_data_dir temp;
    host_identity_init(1);
    // How many rotations the other thread may have made, granted as this thread goes on:
    // never TEXT_SLOTS of them while it may still be reading one text.
    std::atomic<uint32_t> granted{0};
    std::atomic<uint32_t> rotations{0};
    std::atomic<bool> stop{false};
    std::thread server([&] {
        while (!stop) {
            if (rotations == granted) {
                std::this_thread::yield();
                continue;
            }
            host_rotate_password(1);
            rotations++;
        }
    });
    for (uint32_t i = 0; i < 500; i++) {
        host_set_password(""); // rotations run
        granted = rotations + 10;
        for (const uint32_t before = rotations; rotations < before + 1 + i % 3;)
            std::this_thread::yield();
        host_set_password("mine");
        CHECK(std::string(host_get_password()) == "mine");
        while (rotations != granted) // the one under way, and more
            std::this_thread::yield();
        CHECK(std::string(host_get_password()) == "mine");
    }
    stop = true;
    server.join();
}

TEST_CASE("the state and the peer's name are read while the server changes them")
{
    std::atomic<bool> finished{false};
    std::thread server([&] {
        for (uint32_t i = 0; i < TEXT_SLOTS - 2; i++) {
            host_set_state((int32_t)(i % 3));
            host_set_peer_name(i % 2 ? "" : "abcdefghijklmnopqrstuvwxyz012345");
        }
        finished = true;
    });
    uint64_t broken = 0;
    do {
        const int32_t state = host_get_state();
        broken += state < HOST_OFFLINE || state > HOST_SERVING;
        const std::string name = host_get_peer_name();
        broken += name != "" && name != "abcdefghijklmnopqrstuvwxyz012345";
    } while (!finished);
    server.join();
    CHECK(broken == 0);
}
