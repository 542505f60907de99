#include "db/images.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <iterator>

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
    for (size_t i = 0; i < std::size(kImages); ++i) {
        if (!selected[i]) continue;
        const std::string path = SpaceID_DBPath + kImages[i].fileName;
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (file < 0) {
            RUX_LOGE("The DB%d open fail.", kImages[i].number);
            continue;
        }
        const bool written = writeFully(file, Json::FastWriter().write(kImages[i].value));
        if (close(file) != 0 || !written) RUX_LOGE("The DB%d write fail.", kImages[i].number);
    }
}

}  // namespace rux
