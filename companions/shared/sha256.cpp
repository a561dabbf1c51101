#include "shared/sha256.h"

#include <array>
#include <cstdint>

#include "base/bytes.h"

namespace orx {

constexpr size_t kBlock = 64;

// The fractional parts of the cube roots of the first 64 primes.
static const uint32_t kRoots[kBlock] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
};

using State = std::array<uint32_t, 8>;

static uint32_t Rotate(uint32_t u, int n)
{
    return u >> n | u << (32 - n);
}

static void MixBlock(State *pState, const char *pBlock)
{
    uint32_t words[kBlock];
    for (size_t i = 0; i < 16; i++)
        words[i] = GetBe(pBlock + 4 * i, 4);
    for (size_t i = 16; i < kBlock; i++) {
        uint32_t a = words[i - 15], b = words[i - 2];
        words[i] = words[i - 16] + words[i - 7] + (Rotate(a, 7) ^ Rotate(a, 18) ^ a >> 3) +
                   (Rotate(b, 17) ^ Rotate(b, 19) ^ b >> 10);
    }
    State s = *pState;
    for (size_t i = 0; i < kBlock; i++) {
        uint32_t a = s[0], e = s[4];
        uint32_t nOne = s[7] + (Rotate(e, 6) ^ Rotate(e, 11) ^ Rotate(e, 25)) + ((e & s[5]) ^ (~e & s[6])) +
                        kRoots[i] + words[i];
        uint32_t nTwo =
            (Rotate(a, 2) ^ Rotate(a, 13) ^ Rotate(a, 22)) + ((a & s[1]) ^ (a & s[2]) ^ (s[1] & s[2]));
        s = {nOne + nTwo, a, s[1], s[2], s[3] + nOne, e, s[5], s[6]};
    }
    for (size_t i = 0; i < s.size(); i++)
        (*pState)[i] += s[i];
}

std::string Sha256Hex(std::string_view text)
{
    State state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                   0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::string padded(text);
    padded += '\x80';
    padded.resize((padded.size() + 8 + kBlock - 1) / kBlock * kBlock);
    uint64_t nBits = static_cast<uint64_t>(text.size()) * 8;
    PutBe(padded.data() + padded.size() - 8, 4, static_cast<uint32_t>(nBits >> 32));
    PutBe(padded.data() + padded.size() - 4, 4, static_cast<uint32_t>(nBits));
    for (size_t i = 0; i < padded.size(); i += kBlock)
        MixBlock(&state, padded.data() + i);
    std::string hex;
    for (uint32_t nWord : state)
        for (int nShift = 28; nShift >= 0; nShift -= 4)
            hex += "0123456789abcdef"[nWord >> nShift & 15];
    return hex;
}

}  // namespace orx
