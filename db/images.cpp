#include "db/images.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

#include "control/log.h"
#include "db/files.h"
#include "db/json_text.h"

namespace rux {

Json::Value fileInfoDB;
Json::Value checkNoCompressDB;
Json::Value checkACompressDB;
Json::Value modifyFileInfoDB;

namespace {

struct Image {
    int number;  // as save errors give it
    const char* fileName;
    Json::Value& value;
};

const Image kImages[] = {
        {1, "/RUXFileInfo.json", fileInfoDB},
        {2, "/RUXCheckNoCompress.json", checkNoCompressDB},
        {3, "/RUXCheckACompress.json", checkACompressDB},
        {4, "/RUXModifyFileInfo.json", modifyFileInfoDB},
};

/// A file that is about to be rewritten in place.
class Rewrite {
  public:
    Rewrite(int imageNumber, const std::string& path)
          : number(imageNumber), mFile(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666)) {
        struct stat st = {};
        if (mFile >= 0 && fstat(mFile, &st) == 0) mOldSize = st.st_size;
    }
    Rewrite(Rewrite&& other) noexcept
          : number(other.number),
            text(std::move(other.text)),
            mFile(std::exchange(other.mFile, -1)),
            mOldSize(other.mOldSize) {}
    Rewrite& operator=(Rewrite&&) = delete;
    ~Rewrite() {
        if (mFile >= 0) close(mFile);
    }

    bool isOpen() const { return mFile >= 0; }

    /// Has the disk set aside what the text needs, where the file system can do that.
    bool reserve() const {
        const auto size = static_cast<off_t>(text.size());
        return size <= mOldSize || fallocate(mFile, FALLOC_FL_KEEP_SIZE, 0, size) == 0 ||
               errno == EOPNOTSUPP;
    }

    /// Leaves the file as it was.
    void giveBack() const {
        if (ftruncate(mFile, mOldSize) != 0) return;  // the room stays set aside, for the next time
    }

    bool write() const {
        return writeFully(mFile, text) && ftruncate(mFile, static_cast<off_t>(text.size())) == 0;
    }

    int number;  // of the image
    std::string text;

  private:
    int mFile;
    off_t mOldSize = 0;
};

}  // namespace

Json::Value readFileDBJson(const std::string& path) {
    Json::Value value;
    if (access(path.c_str(), F_OK) != 0) {
        std::ofstream created(path, std::ios::app);
        if (!created) RUX_LOGE("the file %s creat fail.", path.c_str());
        created << "{}\n";
    }
    const std::optional<std::string> text = readWholeFile(path);
    if (!text) {
        RUX_LOGE("the file %s open fail.", path.c_str());
        return value;
    }
    if (!parseJson(*text, value)) RUX_LOGE("the file %s read fail", path.c_str());
    return value;
}

void DBReaderInit(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4) {
    const bool selected[] = {db1, db2, db3, db4};
    for (size_t i = 0; i < std::size(kImages); ++i) {
        if (!selected[i]) continue;
        kImages[i].value = Json::Value();  // first, so that two contents are never held at once
        kImages[i].value = readFileDBJson(SpaceID_DBPath + kImages[i].fileName);
    }
}

void DBWriteUpdate(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4) {
    const bool selected[] = {db1, db2, db3, db4};
    std::vector<Rewrite> rewrites;
    for (size_t i = 0; i < std::size(kImages); ++i) {
        if (!selected[i]) continue;
        const Image& image = kImages[i];
        Rewrite rewrite(image.number, SpaceID_DBPath + image.fileName);
        if (!rewrite.isOpen()) {
            RUX_LOGE("The DB%d open fail.", image.number);
            continue;
        }
        rewrite.text = Json::FastWriter().write(image.value);
        rewrites.push_back(std::move(rewrite));
    }
    // The files go together: on a full disk none of them changes.
    bool fit = true;
    for (const Rewrite& rewrite : rewrites) {
        if (rewrite.reserve()) continue;
        RUX_LOGE("The DB%d write fail.", rewrite.number);
        fit = false;
    }
    for (const Rewrite& rewrite : rewrites) {
        if (!fit) {
            rewrite.giveBack();
        } else if (!rewrite.write()) {
            RUX_LOGE("The DB%d write fail.", rewrite.number);
        }
    }
}

}  // namespace rux
