#include "f2fs_io/digest/md5.h"

#include <openssl/evp.h>

#include <cerrno>
#include <memory>
#include <vector>

namespace android::host {
namespace {

constexpr size_t kPiece = 256U << 10;  // bytes a read

/// A running digest. Its context is kept for the thread: making one costs more than a small file.
class Md5 {
  public:
    Md5() {
        // Fetched once: the library otherwise looks the algorithm up again for every digest.
        static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "MD5", nullptr);
        mUsable = algorithm != nullptr && EVP_DigestInit_ex(context(), algorithm, nullptr) == 1;
    }
    void add(const void* bytes, size_t size) {
        mUsable = mUsable && EVP_DigestUpdate(context(), bytes, size) == 1;
    }
    /// Empty when the cryptographic library has failed.
    std::string finish() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        if (!mUsable || EVP_DigestFinal_ex(context(), digest, &size) != 1) return {};
        std::string text(size_t{2} * size, '\0');
        writeHex(digest, size, text.data());
        return text;
    }

  private:
    static EVP_MD_CTX* context() {
        struct Free {
            void operator()(EVP_MD_CTX* unused) const { EVP_MD_CTX_free(unused); }
        };
        thread_local const std::unique_ptr<EVP_MD_CTX, Free> instance(EVP_MD_CTX_new());
        return instance.get();
    }

    bool mUsable = false;
};

}  // namespace

std::string md5OfText(std::string_view text) {
    Md5 md5;
    md5.add(text.data(), text.size());
    return md5.finish();
}

int md5Of(DigestSource& source, std::string* digest) {
    thread_local std::vector<unsigned char> piece(kPiece);
    Md5 md5;
    off_t done = 0;
    while (done <= source.size()) {
        const ssize_t got = source.read(piece.data(), piece.size());
        if (got < 0) return errno;
        if (got == 0) break;
        md5.add(piece.data(), static_cast<size_t>(got));
        done += got;
    }
    if (done > source.size()) return EAGAIN;  // it may go on growing for ever
    *digest = md5.finish();
    return digest->empty() ? ENOTSUP : 0;
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
