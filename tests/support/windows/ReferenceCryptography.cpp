// As the standards describe it (FIPS 180-4, FIPS 197, RFC 2104, RFC 8018), without a thought of speed or of
// secrets: here the library stands on the only cryptography that the system has.

#include "ReferenceCryptography.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <stdexcept>

namespace tessel::test::reference {

namespace {

using std::uint32_t;
using std::uint64_t;

void check(bool condition) {
    if (!condition)
        throw std::runtime_error("The reference is asked for what makes no sense");
}

/// The message with a one, zeros and its length in bits behind it, so that it is whole blocks.
ByteRow padMessage(ByteRow message) {
    const uint64_t bits = uint64_t{message.size()} * 8;
    message.push_back(0x80);
    while (message.size() % 64 != 56)
        message.push_back(0);
    for (int shift = 56; shift >= 0; shift -= 8)
        message.push_back(static_cast<unsigned char>(bits >> shift));
    return message;
}

uint32_t loadBigEndian(const unsigned char* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

template <std::size_t N>
ByteRow storeBigEndian(const std::array<uint32_t, N>& words) {
    ByteRow bytes;
    for (const uint32_t word : words)
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<unsigned char>(word >> shift));
    return bytes;
}

// --- SHA-1

void addBlockSHA1(std::array<uint32_t, 5>& state, const unsigned char* block) {
    std::array<uint32_t, 80> w{};
    for (std::size_t i = 0; i < 16; ++i)
        w[i] = loadBigEndian(block + 4 * i);
    for (std::size_t i = 16; i < 80; ++i)
        w[i] = std::rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    auto [a, b, c, d, e] = state;
    for (std::size_t i = 0; i < 80; ++i) {
        uint32_t f = b ^ c ^ d;
        uint32_t k = i < 40 ? 0x6ed9eba1 : 0xca62c1d6;
        if (i < 20) {
            f = (b & c) | (~b & d);
            k = 0x5a827999;
        } else if (i >= 40 && i < 60) {
            f = (b & c) | (b & d) | (c & d);
            k = 0x8f1bbcdc;
        }
        const uint32_t next = std::rotl(a, 5) + f + e + k + w[i];
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

ByteRow sha1(const ByteRow& data) {
    std::array<uint32_t, 5> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};
    const ByteRow message = padMessage(data);
    for (std::size_t i = 0; i < message.size(); i += 64)
        addBlockSHA1(state, &message[i]);
    return storeBigEndian(state);
}

ByteRow hmacSHA1(ByteRow key, const ByteRow& data) {
    if (key.size() > 64)
        key = sha1(key);
    key.resize(64);
    ByteRow inner;
    ByteRow outer;
    for (const unsigned char byte : key) {
        inner.push_back(byte ^ 0x36);
        outer.push_back(byte ^ 0x5c);
    }
    inner.insert(inner.end(), data.begin(), data.end());
    const ByteRow digest = sha1(inner);
    outer.insert(outer.end(), digest.begin(), digest.end());
    return sha1(outer);
}

// --- SHA-256

constexpr std::array<uint32_t, 64> roundConstants = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

void addBlockSHA256(std::array<uint32_t, 8>& state, const unsigned char* block) {
    std::array<uint32_t, 64> w{};
    for (std::size_t i = 0; i < 16; ++i)
        w[i] = loadBigEndian(block + 4 * i);
    for (std::size_t i = 16; i < 64; ++i) {
        const uint32_t s0 = std::rotr(w[i - 15], 7) ^ std::rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
        const uint32_t s1 = std::rotr(w[i - 2], 17) ^ std::rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    auto [a, b, c, d, e, f, g, h] = state;
    for (std::size_t i = 0; i < 64; ++i) {
        const uint32_t s1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
        const uint32_t t1 = h + s1 + ((e & f) ^ (~e & g)) + roundConstants[i] + w[i];
        const uint32_t s0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
        const uint32_t t2 = s0 + ((a & b) ^ (a & c) ^ (b & c));
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    const std::array<uint32_t, 8> added = {a, b, c, d, e, f, g, h};
    for (std::size_t i = 0; i < 8; ++i)
        state[i] += added[i];
}

// --- AES

/// The product in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1.
unsigned char multiply(unsigned int a, unsigned int b) {
    unsigned int product = 0;
    for (; b != 0; b >>= 1) {
        if ((b & 1) != 0)
            product ^= a;
        a = (a << 1) ^ ((a & 0x80) != 0 ? 0x11bu : 0);
    }
    return static_cast<unsigned char>(product);
}

struct SubstitutionBox {
    std::array<unsigned char, 256> forward{};
    std::array<unsigned char, 256> backward{};

    SubstitutionBox() {
        for (unsigned int value = 0; value < 256; ++value) {
            unsigned char inverse = 0;
            for (unsigned int candidate = 1; candidate < 256 && value != 0; ++candidate)
                if (multiply(value, candidate) == 1)
                    inverse = static_cast<unsigned char>(candidate);
            unsigned char result = 0x63;
            for (int turn = 0; turn < 5; ++turn)
                result ^= std::rotl(inverse, turn);
            forward[value] = result;
            backward[result] = static_cast<unsigned char>(value);
        }
    }
};

using Block = std::array<unsigned char, 16>;

class CAES256 {
public:
    explicit CAES256(const ByteRow& key) {
        ByteRow bytes = key;
        unsigned char constant = 1;
        for (std::size_t word = 8; word < 60; ++word) {
            std::array<unsigned char, 4> next{};
            std::copy_n(bytes.end() - 4, 4, next.begin());
            if (word % 8 == 0)
                std::rotate(next.begin(), next.begin() + 1, next.end());
            if (word % 4 == 0)
                for (unsigned char& byte : next)
                    byte = m_box.forward[byte];
            if (word % 8 == 0) {
                next[0] ^= constant;
                constant = multiply(constant, 2);
            }
            for (std::size_t i = 0; i < 4; ++i)
                bytes.push_back(bytes[4 * (word - 8) + i] ^ next[i]);
        }
        for (std::size_t round = 0; round < m_keys.size(); ++round)
            std::copy_n(&bytes[16 * round], 16, m_keys[round].begin());
    }

    Block encrypt(Block block) const {
        addKey(block, 0);
        for (std::size_t round = 1; round < m_keys.size(); ++round) {
            Block moved{};
            for (std::size_t i = 0; i < 16; ++i)
                moved[i] = m_box.forward[block[(i + 4 * (i % 4)) % 16]];
            block = round + 1 < m_keys.size() ? mixColumns(moved, {2, 3, 1, 1}) : moved;
            addKey(block, round);
        }
        return block;
    }

    Block decrypt(Block block) const {
        for (std::size_t round = m_keys.size() - 1; round > 0; --round) {
            addKey(block, round);
            if (round + 1 < m_keys.size())
                block = mixColumns(block, {14, 11, 13, 9});
            Block moved{};
            for (std::size_t i = 0; i < 16; ++i)
                moved[(i + 4 * (i % 4)) % 16] = m_box.backward[block[i]];
            block = moved;
        }
        addKey(block, 0);
        return block;
    }

private:
    void addKey(Block& block, std::size_t round) const {
        for (std::size_t i = 0; i < 16; ++i)
            block[i] ^= m_keys[round][i];
    }
    static Block mixColumns(const Block& block, const std::array<unsigned int, 4>& factors) {
        Block result{};
        for (std::size_t i = 0; i < 16; ++i)
            for (std::size_t j = 0; j < 4; ++j)
                result[i] ^= multiply(block[i / 4 * 4 + (i + j) % 4], factors[j]);
        return result;
    }

    SubstitutionBox m_box;
    std::array<Block, 15> m_keys{};
};

} // namespace

ByteRow aes256CBC(bool encrypt, const ByteRow& data, const ByteRow& key, const ByteRow& iv) {
    check(data.size() % 16 == 0 && key.size() == 32 && iv.size() == 16);
    const CAES256 cipher(key);
    ByteRow out;
    Block chain{};
    std::copy_n(iv.begin(), 16, chain.begin());
    for (std::size_t position = 0; position < data.size(); position += 16) {
        Block in{};
        std::copy_n(&data[position], 16, in.begin());
        Block result = in;
        if (encrypt)
            for (std::size_t i = 0; i < 16; ++i)
                result[i] ^= chain[i];
        result = encrypt ? cipher.encrypt(result) : cipher.decrypt(result);
        if (!encrypt)
            for (std::size_t i = 0; i < 16; ++i)
                result[i] ^= chain[i];
        chain = encrypt ? result : in;
        out.insert(out.end(), result.begin(), result.end());
    }
    return out;
}

ByteRow sha256(const ByteRow& data) {
    std::array<uint32_t, 8> state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                     0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    const ByteRow message = padMessage(data);
    for (std::size_t i = 0; i < message.size(); i += 64)
        addBlockSHA256(state, &message[i]);
    return storeBigEndian(state);
}

ByteRow pbkdf2(const std::string& password, const ByteRow& salt, int iterations, int size) {
    check(iterations > 0 && size >= 0);
    const ByteRow key(password.begin(), password.end());
    ByteRow result;
    for (unsigned char block = 1; result.size() < static_cast<std::size_t>(size); ++block) {
        check(block < 255);
        ByteRow u = salt;
        u.insert(u.end(), {0, 0, 0, block});
        ByteRow sum(20);
        for (int i = 0; i < iterations; ++i) {
            u = hmacSHA1(key, u);
            for (std::size_t j = 0; j < sum.size(); ++j)
                sum[j] ^= u[j];
        }
        result.insert(result.end(), sum.begin(), sum.end());
    }
    result.resize(static_cast<std::size_t>(size));
    return result;
}

} // namespace tessel::test::reference
