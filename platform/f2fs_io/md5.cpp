#include "f2fs_io/md5.h"

#include <openssl/evp.h>
#include <unistd.h>

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
        constexpr char kDigits[] = "0123456789abcdef";
        std::string text;
        for (unsigned int i = 0; i < size; ++i) {
            text += kDigits[digest[i] >> 4];
            text += kDigits[digest[i] & 15];
        }
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

int md5OfFile(int file, std::string* digest) {
    thread_local std::vector<unsigned char> piece(kPiece);
    Md5 md5;
    while (true) {
        const ssize_t got = read(file, piece.data(), piece.size());
        if (got == 0) break;
        if (got > 0) {
            md5.add(piece.data(), static_cast<size_t>(got));
        } else if (errno != EINTR) {
            return errno;
        }
    }
    *digest = md5.finish();
    return digest->empty() ? ENOTSUP : 0;
}

}  // namespace android::host
