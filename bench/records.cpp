// Sealing and opening records: the calls that the channel makes, against libsodium's of the
// same construction, with the same key, nonce and bytes.
#include "bench/groups.h"

#include <memory>
#include <monocypher.h>
#include <sodium.h>
#include <string.h>

struct record {
    uint8_t key[32], nonce[24], header[4], tag[16];
    std::vector<uint8_t> plain, sealed, out;
};

static void seal(record *r)
{
    crypto_aead_lock(r->sealed.data(), r->tag, r->key, r->nonce, r->header, sizeof r->header,
                     r->plain.data(), r->plain.size());
    bench_keep(r->tag[0]);
}

static void seal_theirs(record *r)
{
    unsigned long long tag_bytes = 0;
    crypto_aead_xchacha20poly1305_ietf_encrypt_detached(
        r->sealed.data(), r->tag, &tag_bytes, r->plain.data(), r->plain.size(), r->header,
        sizeof r->header, nullptr, r->nonce, r->key);
    bench_keep(r->tag[0]);
}

static bool open(record *r)
{
    return crypto_aead_unlock(r->out.data(), r->tag, r->key, r->nonce, r->header,
                              sizeof r->header, r->sealed.data(), r->sealed.size()) == 0;
}

static bool open_theirs(record *r)
{
    return crypto_aead_xchacha20poly1305_ietf_decrypt_detached(
               r->out.data(), nullptr, r->sealed.data(), r->sealed.size(), r->tag, r->header,
               sizeof r->header, r->nonce, r->key) == 0;
}

// Each opens what the other sealed, and neither what was changed.
static bool records_right(record *r)
{
    seal(r);
    r->out.assign(r->out.size(), 0);
    bool right = open_theirs(r) && r->out == r->plain;
    seal_theirs(r);
    r->out.assign(r->out.size(), 0);
    right = right && open(r) && r->out == r->plain;
    r->sealed[0] ^= 1;
    right = right && !open(r) && !open_theirs(r);
    seal(r);
    return right;
}

static void add_lines(std::vector<bench_line> *lines, const char *what, size_t bytes)
{
    auto r = std::make_shared<record>();
    bench_random random = {bytes + 1};
    for (uint8_t &byte : r->key)
        byte = (uint8_t)random.next();
    memset(r->nonce, 7, sizeof r->nonce);
    memset(r->header, 9, sizeof r->header);
    r->plain.resize(bytes);
    for (uint8_t &byte : r->plain)
        byte = (uint8_t)(random.next() >> 32);
    r->sealed.resize(bytes);
    r->out.resize(bytes);
    seal(r.get());

    // Small records many times a run: a run is then longer than the clock's grain.
    size_t times = bytes < 65536 ? 65536 / (bytes + 256) : 1;
    auto repeated = [=](auto call) {
        return [=] {
            for (size_t i = 0; i < times; i++)
                call(r.get());
        };
    };
    bench_line line;
    line.group = "records";
    line.unit = "record";
    line.units = (double)times;
    line.right = [=] { return records_right(r.get()); };

    line.name = std::string("seal ") + what;
    line.own = {"crypto_aead_lock", repeated(seal)};
    line.other = {"libsodium", repeated(seal_theirs)};
    lines->push_back(line);
    line.name = std::string("open ") + what;
    line.own = {"crypto_aead_unlock", repeated([](record *x) { bench_keep(open(x)); })};
    line.other = {"libsodium", repeated([](record *x) { bench_keep(open_theirs(x)); })};
    lines->push_back(line);
}

void record_lines(std::vector<bench_line> *lines)
{
    if (sodium_init() < 0) {
        fprintf(stderr, "bench: libsodium does not start\n");
        return;
    }
    add_lines(lines, "an acknowledgement, 16 B", 16);
    add_lines(lines, "a raw tile, 16 KiB", 16384);
    add_lines(lines, "a typical frame, 64 KiB", 65536);
    add_lines(lines, "a whole screen, 1 MiB", 1 << 20);
}
