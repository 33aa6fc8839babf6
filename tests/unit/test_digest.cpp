// SPDX-License-Identifier: GPL-2.0
//
// MD5 and SHA-1 against published results, and what the interfaces add to the algorithms.
#include "md5.h"
#include "protocol_fixture.h"
#include "sha1.h"

namespace
{

exact_copy exact(const std::string &message)
{
    return exact_copy({reinterpret_cast<const std::uint8_t *>(message.data()), message.size()});
}

std::string md5(const std::string &message)
{
    std::uint8_t digest[16];
    kelm_md5_cksum(exact(message).data(), message.size(), message.size(), digest, nullptr);
    return hex(digest);
}

// The message is passed in pieces, of which the first may have another size.
std::string sha1(const std::string &message, std::size_t first = 0, std::size_t piece = 1 << 20)
{
    exact_copy copy = exact(message);
    kelm_sha1_ctxt ctxt;
    kelm_sha1_init(&ctxt);
    kelm_sha1_loop(&ctxt, copy.data(), first);
    for (std::size_t at = first; at < message.size(); at += piece)
        kelm_sha1_loop(&ctxt, copy.data() + at, std::min(piece, message.size() - at));
    std::uint8_t digest[20];
    kelm_sha1_result(&ctxt, digest);
    return hex(digest);
}

const std::string letters = "abcdefghijklmnopqrstuvwxyz";
const std::string letters_and_digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZ" + letters + "0123456789";

struct known_answer {
    std::string message;
    const char *digest;
};

std::string a(std::size_t count)
{
    return std::string(count, 'a');
}

TEST(md5, gives_the_published_digests)
{
    const known_answer answers[] = {
        // RFC 1321 appendix A.5
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {letters, "c3fcd3d76192e4007dfb496cca67e13b"},
        {letters_and_digits, "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
        // Lengths around the places where the padding takes another block.
        {a(55), "ef1772b6dff9a122358552954ad0df65"},
        {a(56), "3b0c8ac703f828b04c6c197006d17218"},
        {a(63), "b06521f39153d618550606be297466d5"},
        {a(64), "014842d480b571495a4a0363793f7367"},
        {a(119), "8a7bd0732ed6a28ce75f6dabc90e1613"},
    };
    for (const known_answer &answer : answers)
        EXPECT_EQ(md5(answer.message), answer.digest) << answer.message;
}

TEST(md5, goes_on_from_given_chaining_values)
{
    // After a block of 64 times "a". The length that is padded with is the whole message's.
    const std::uint32_t after_first_block[4] = {0x89d4ff56, 0x125cd962, 0x69cade33, 0x0033e325};
    const std::string rest(36, 'b');
    std::uint8_t digest[16];
    kelm_md5_cksum(rest.data(), rest.size(), 100, digest, after_first_block);
    EXPECT_EQ(hex(digest), "28af010a635cdd8616f9d721ebd858d3");
    EXPECT_EQ(md5(a(64) + rest), "28af010a635cdd8616f9d721ebd858d3");
}

TEST(md5, may_be_written_into_the_data)
{
    const std::string message = letters_and_digits + letters;
    for (std::size_t at = 0; at + 16 <= message.size(); ++at) {
        exact_copy data = exact(message);
        std::uint8_t *digest = data.data() + at;
        kelm_md5_cksum(data.data(), message.size(), message.size(), digest, nullptr);
        ASSERT_EQ(hex({digest, 16}), md5(message)) << at;
    }
}

TEST(sha1, gives_the_published_digests)
{
    const known_answer answers[] = {
        // FIPS 180-1 appendices A, B and C
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {a(1000000), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
        // Lengths around the places where the padding takes another block.
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {a(55), "c1c8bbdc22796e28c0e15163d20899b65621d65a"},
        {a(56), "c2db330f6083854c99d4b5bfb6e8f29f201be699"},
        {a(63), "03f09f5b158a7a8cdad920bddc29b81c18a551f5"},
        {a(64), "0098ba824b5c16427bd7a1122a5a442a25ec644d"},
        {a(119), "ee971065aaa017e0632a8ca6c77bb3bf8b1dfc56"},
    };
    for (const known_answer &answer : answers)
        EXPECT_EQ(sha1(answer.message), answer.digest) << answer.message.substr(0, 130);
}

TEST(sha1, does_not_depend_on_how_the_message_is_cut)
{
    std::string message;
    for (int i = 0; i < 300; ++i)
        message += static_cast<char>(i * 7);
    const std::string whole = sha1(message);

    for (std::size_t cut = 0; cut <= message.size(); ++cut)
        ASSERT_EQ(sha1(message, cut), whole) << "cut at " << cut;
    for (std::size_t piece = 1; piece <= 130; ++piece)
        ASSERT_EQ(sha1(message, 0, piece), whole) << "pieces of " << piece;
}

} // namespace
