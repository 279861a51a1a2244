// The password cipher: published DES answers through the bit-order identity, a cross-check with
// OpenSSL's DES, and the layout of the enciphered password field.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/des.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "proxy/cipher.h"

namespace {

using Block = std::array<uint8_t, 8>;

Block FromHex(const char* hex) {
    Block b{};
    for (int i = 0; i < 8; ++i) b[i] = static_cast<uint8_t>(std::stoul(std::string(hex + 2 * i, 2), nullptr, 16));
    return b;
}

Block Reversed(Block b) {
    ReverseBitsOfBytes(b.data(), b.size());
    return b;
}

// Reference: OpenSSL's standard DES, with the service's bit numbering wrapped around it.
Block OpenSslDes(const Block& key, const Block& text, bool encrypt) {
    DES_cblock k, in, out;
    std::memcpy(k, key.data(), 8);
    std::memcpy(in, text.data(), 8);
    DES_key_schedule ks;
    DES_set_key_unchecked(&k, &ks);
    DES_ecb_encrypt(&in, &out, &ks, encrypt ? DES_ENCRYPT : DES_DECRYPT);
    Block r;
    std::memcpy(r.data(), out, 8);
    return r;
}
Block OpenSslTrov(const Block& key, const Block& text) { return Reversed(OpenSslDes(Reversed(key), Reversed(text), true)); }

struct KnownAnswer {
    const char* key;
    const char* plain;
    const char* cipher;
};

// FIPS 81 (ECB example), the NBS validation tables and the classic worked example.
const KnownAnswer kKnownAnswers[] = {
    {"0123456789ABCDEF", "4E6F772069732074", "3FA40E8A984D4815"},  // "Now is t"
    {"0123456789ABCDEF", "68652074696D6520", "6A271787AB8883F9"},  // "he time "
    {"0123456789ABCDEF", "666F7220616C6C20", "893D51EC4B563B53"},  // "for all "
    {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
    {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"},
    {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
    {"0101010101010101", "0000000000000001", "166B40B44ABA4BD6"},
    {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
    {"7CA110454A1A6E57", "01A1D6D039776742", "690F5B0D9A26939B"},
};

TEST(Cipher, PublishedAnswersThroughTheBitOrderIdentity) {
    for (const KnownAnswer& ka : kKnownAnswers) {
        Block key = Reversed(FromHex(ka.key));
        Block block = Reversed(FromHex(ka.plain));
        TrovDesEncryptBlock(key.data(), block.data());
        EXPECT_EQ(Reversed(block), FromHex(ka.cipher)) << ka.key << " " << ka.plain;

        TrovDesDecryptBlock(key.data(), block.data());
        EXPECT_EQ(Reversed(block), FromHex(ka.plain)) << ka.key << " " << ka.plain;
    }
}

TEST(Cipher, StandardDesGivesThePublishedAnswers) {
    for (const KnownAnswer& ka : kKnownAnswers) {
        Block key = FromHex(ka.key), block = FromHex(ka.plain);
        DesEncryptBlock(key.data(), block.data());
        EXPECT_EQ(block, FromHex(ka.cipher)) << ka.key;
        DesDecryptBlock(key.data(), block.data());
        EXPECT_EQ(block, FromHex(ka.plain)) << ka.key;
    }
}

TEST(Cipher, AgreesWithOpenSslOnRandomBlocks) {
    std::mt19937_64 rng(20260307);
    for (int i = 0; i < 2000; ++i) {
        Block key, text;
        for (auto& b : key) b = static_cast<uint8_t>(rng());
        for (auto& b : text) b = static_cast<uint8_t>(rng());

        Block std = text;
        DesEncryptBlock(key.data(), std.data());
        ASSERT_EQ(std, OpenSslDes(key, text, true)) << i;
        Block stdBack = text;
        DesDecryptBlock(key.data(), stdBack.data());
        ASSERT_EQ(stdBack, OpenSslDes(key, text, false)) << i;

        Block trov = text;
        TrovDesEncryptBlock(key.data(), trov.data());
        ASSERT_EQ(trov, OpenSslTrov(key, text)) << i;
        TrovDesDecryptBlock(key.data(), trov.data());
        ASSERT_EQ(trov, text) << i;
    }
}

TEST(Cipher, TopBitOfEachKeyByteIsParity) {
    Block key = FromHex("746F6C6E6F667261"), text = FromHex("70617373776F7264");
    Block a = text, b = text, c = text;
    TrovDesEncryptBlock(key.data(), a.data());
    Block flippedTop = key;
    for (auto& k : flippedTop) k ^= 0x80;
    TrovDesEncryptBlock(flippedTop.data(), b.data());
    EXPECT_EQ(a, b);
    Block flippedLow = key;
    flippedLow[3] ^= 0x01;
    TrovDesEncryptBlock(flippedLow.data(), c.data());
    EXPECT_NE(a, c);
    // And the twist matters: standard DES gives another answer on the same bytes.
    Block d = text;
    DesEncryptBlock(key.data(), d.data());
    EXPECT_NE(a, d);
}

TEST(Cipher, PasswordKeyIsFixed) { EXPECT_STREQ(kPasswordKey, "tulnofra"); }

// The field as the login record holds it: the password, then zeros to 48 bytes.
std::unique_ptr<uint8_t[]> Field(const std::string& password) {
    // Heap block of exactly 48 bytes, so that a read past the field is caught by a sanitizer.
    std::unique_ptr<uint8_t[]> f(new uint8_t[48]());
    std::memcpy(f.get(), password.data(), std::min<size_t>(password.size(), 48));
    return f;
}

Block KeyBlock() {
    Block k;
    std::memcpy(k.data(), kPasswordKey, 8);
    return k;
}

// Enciphers the 8 bytes at text through the reference.
Block Expected(const std::string& eight) {
    Block b;
    std::memcpy(b.data(), eight.data(), 8);
    return OpenSslTrov(KeyBlock(), b);
}

Block At(const uint8_t* p) {
    Block b;
    std::memcpy(b.data(), p, 8);
    return b;
}

TEST(PasswordField, LayoutByLength) {
    struct Case {
        size_t length;
        size_t blocks;      // enciphered blocks
        size_t clearTail;   // characters left in clear after the blocks
        bool nulAfter;      // NUL stored behind the blocks
    };
    const Case cases[] = {{0, 0, 0, true},  {1, 1, 0, true},  {8, 1, 0, true},  {9, 2, 0, true},
                          {40, 5, 0, true}, {44, 5, 4, false}, {47, 5, 7, false}, {48, 5, 8, false}};
    const std::string alphabet = "Tr0v-s3cret:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopq";
    for (const Case& c : cases) {
        std::string password = alphabet.substr(0, c.length);
        auto field = Field(password);
        // Bytes after the terminator must stay as they were: mark them.
        for (size_t i = c.length + 1; i < 48; ++i) field[i] = 0xEE;
        EncipherPasswordField(field.get());

        std::string padded = password.substr(0, std::min<size_t>(c.length, 40));
        padded.resize(c.blocks * 8, ' ');
        for (size_t b = 0; b < c.blocks; ++b)
            EXPECT_EQ(At(field.get() + 8 * b), Expected(padded.substr(8 * b, 8))) << c.length << " block " << b;
        size_t end = c.blocks * 8;
        std::string tail = c.clearTail ? password.substr(40, c.clearTail) : "";
        EXPECT_EQ(std::string(reinterpret_cast<char*>(field.get()) + end, c.clearTail), tail) << c.length;
        end += c.clearTail;
        if (c.nulAfter) {
            EXPECT_EQ(field[end], 0) << c.length;
            ++end;
        }
        for (size_t i = end; i < 48; ++i) {
            uint8_t want = i == c.length ? 0 : 0xEE;  // the password's own terminator stays
            EXPECT_EQ(field[i], want) << c.length << " at " << i;
        }
    }
}

TEST(PasswordField, NineCharactersPadTheSecondBlockWithBlanks) {
    auto field = Field("abcdefghi");
    EncipherPasswordField(field.get());
    EXPECT_EQ(At(field.get() + 8), Expected("i       "));
    EXPECT_EQ(field[16], 0);
}

TEST(PasswordField, DecipherRecoversEveryLength) {
    std::string password = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKL";
    for (size_t len = 0; len <= 48; ++len) {
        auto field = Field(password.substr(0, len));
        EncipherPasswordField(field.get());
        char out[64];
        ASSERT_TRUE(DecipherPasswordField(field.get(), static_cast<unsigned>(len), out, sizeof out));
        EXPECT_EQ(std::string(out), password.substr(0, len)) << len;
    }
    auto field = Field("x");
    char small[4];
    ASSERT_TRUE(DecipherPasswordField(field.get(), 48, small, sizeof small));
    EXPECT_EQ(std::strlen(small), 3u);
    EXPECT_FALSE(DecipherPasswordField(field.get(), 49, small, sizeof small));
    EXPECT_FALSE(DecipherPasswordField(field.get(), 1, small, 0));
}

}  // namespace
