#include "f2fs_io/digest/md5.h"

#include <openssl/evp.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace android::host {
namespace {

constexpr size_t kPiece = 256U << 10;  // bytes a read

/// Fetched once: the library otherwise looks the algorithm up again for every digest.
const EVP_MD* algorithm() {
    static const EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    return md5;
}

/// 32 digits; empty when the cryptographic library has failed.
std::string textOf(const unsigned char* digest, unsigned int size, bool isUsable) {
    std::string text(isUsable ? size_t{2} * size : 0, '\0');
    if (isUsable) writeHex(digest, size, text.data());
    return text;
}

}  // namespace

std::string md5OfText(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    const bool isDone =
            EVP_Digest(text.data(), text.size(), digest, &size, algorithm(), nullptr) == 1;
    return textOf(digest, size, isDone);
}

int md5Of(DigestSource& source, std::string* digest) {
    thread_local std::vector<unsigned char> piece(kPiece);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md5(EVP_MD_CTX_new(),
                                                                      EVP_MD_CTX_free);
    bool isUsable = EVP_DigestInit_ex(md5.get(), algorithm(), nullptr) == 1;
    off_t done = 0;
    while (done <= source.size()) {
        const ssize_t got = source.read(piece.data(), piece.size());
        if (got < 0) return errno;
        if (got == 0) break;
        isUsable &= EVP_DigestUpdate(md5.get(), piece.data(), static_cast<size_t>(got)) == 1;
        done += got;
    }
    if (done > source.size()) return EAGAIN;  // it may go on growing for ever
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    isUsable = EVP_DigestFinal_ex(md5.get(), bytes, &size) == 1 && isUsable;
    *digest = textOf(bytes, size, isUsable);
    return isUsable ? 0 : ENOTSUP;
}

void writeHex(const void* bytes, size_t size, char* text) {
    constexpr char kDigits[] = "0123456789abcdef";
    for (size_t i = 0; i < size; ++i) {
        const unsigned char byte = static_cast<const unsigned char*>(bytes)[i];
        *text++ = kDigits[byte >> 4];
        *text++ = kDigits[byte & 15];
    }
}

}  // namespace android::host
