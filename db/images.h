/// The four database files of a space and their images in memory.
///
/// An operation loads the images it needs when it takes up a space, reads and changes them, and
/// saves them when it is done with the space. They belong to the operation that holds its busy
/// flag; what an operation does not load keeps what it held, possibly of another space.
#pragma once

#include <json/json.h>

#include <string>

namespace rux {

extern Json::Value fileInfoDB;  ///< DB1, "RUXFileInfo.json": a record for each file, by path.
extern Json::Value checkNoCompressDB;  ///< DB2, "RUXCheckNoCompress.json": groups, by digest.
extern Json::Value checkACompressDB;   ///< DB3, "RUXCheckACompress.json": linked groups, by digest.
extern Json::Value
        modifyFileInfoDB;  ///< DB4, "RUXModifyFileInfo.json": retired and restored paths.

/// One database file as JSON; a missing one is created as an empty object.
///
/// Problems are logged and leave the value null (cannot be opened, is empty) or with what was read
/// before the error (is not JSON).
Json::Value readFileDBJson(const std::string& path);

/// Replaces each selected image by the content of its file in `SpaceID_DBPath`.
void DBReaderInit(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4);

/// Writes each selected image over its file in `SpaceID_DBPath`, as compact JSON and a line feed.
///
/// A file that cannot be opened is logged, and the others are still written. When the disk has no
/// room for all of them, that is logged and all keep what they hold.
void DBWriteUpdate(const std::string& SpaceID_DBPath, bool db1, bool db2, bool db3, bool db4);

}  // namespace rux
