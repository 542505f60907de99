/// The four database files of a space and their images in memory.
///
/// An operation loads the images it needs when it takes up a space, reads and changes them, and
/// saves them when it is done with the space. They belong to the operation that holds its busy
/// flag; what an operation does not load keeps what it held, possibly of another space. Ten seconds
/// after the last load or save all four are let go.
#pragma once

#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "db/files.h"

namespace rux {

/// A JSON value and the text that it is known to be the same as.
///
/// Loading a file whose text the image holds already, and saving an image over a file that holds
/// its text already, then need no more than a look at the file.
class Image {
  public:
    const Json::Value& operator*() const { return mValue; }
    const Json::Value* operator->() const { return &mValue; }

    /// The value, to be changed.
    Json::Value& change() {
        mText.reset();
        return mValue;
    }

    /// Takes a member out, if there is one of that name.
    void remove(std::string_view name);

    /// Replaces the value by what `text`, that of its file, says. False when it is not JSON.
    bool parse(std::string_view text);

    /// Moves the value out. The image is then empty, as at the start.
    Json::Value release() {
        Json::Value value = std::move(mValue);
        *this = {};
        return value;
    }

    /// Notes the text that the value was written as.
    void setWritten(const TextStamp& text) {
        mText = text;
        mIsAsWritten = true;
        mIsDamaged = false;
    }

    /// The text that the value is known to be the same as.
    const std::optional<TextStamp>& text() const { return mText; }
    /// Whether that text is also what the value would be written as.
    bool isAsWritten() const { return mText && mIsAsWritten; }

    /// Whether its file is there and could not be read. Then the value must not be written over it.
    bool isUnread() const { return mIsUnread; }
    void setUnread() { mIsUnread = true; }
    /// Whether its file holds something else than JSON, of which the value is what could be read.
    bool isDamaged() const { return mIsDamaged; }

  private:
    Json::Value mValue;
    std::optional<TextStamp> mText;
    bool mIsAsWritten = false;
    bool mIsUnread = false;
    bool mIsDamaged = false;
};

extern Image fileInfoDB;         ///< DB1, "RUXFileInfo.json": a record for each file, by path.
extern Image checkNoCompressDB;  ///< DB2, "RUXCheckNoCompress.json": groups, by digest.
extern Image checkACompressDB;   ///< DB3, "RUXCheckACompress.json": linked groups, by digest.
extern Image modifyFileInfoDB;   ///< DB4, "RUXModifyFileInfo.json": retired and restored paths.

/// Reads one database file; a missing one is created as an empty object.
///
/// Problems are logged and leave the value null (cannot be opened, is empty) or with what was read
/// before the error (is not JSON).
void readFileDBJson(const std::string& path, Image& image);

/// Replaces each selected image by the content of its file in `SpaceID_DBPath`. A save that was
/// interrupted there is taken back first.
void DBReaderInit(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4);

/// Writes each selected image over its file in `SpaceID_DBPath`, as compact JSON and a line feed;
/// one whose file holds just that already is left alone. On disk all of them change or none; where
/// no journal can be had for that, a line at ERROR says so, and they change one after the other.
///
/// A file that cannot be opened, or was there and could not be read, is logged, and the others are
/// still written. When the disk has no room for all of them, that is logged and all keep what they
/// hold. What DB3's file holds stays beside it, as ".damaged", when it is no JSON.
void DBWriteUpdate(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4);

}  // namespace rux
