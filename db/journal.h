/// What makes a save all or nothing.
///
/// Before the first byte of a space's files changes, what they hold is set down in one more file
/// beside them, the journal, and is on disk. When the new texts are on disk in their places the
/// journal goes, and with that the save counts. So a process or a machine that dies leaves the
/// files as they were, as they were to be, or a whole journal, from which the next load takes them
/// back.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "android-base/unique_fd.h"
#include "db/files.h"

namespace rux {

/// The files of a space, which DB1 to DB4 are read from.
constexpr std::array kDatabaseFiles = {"/RUXFileInfo.json", "/RUXCheckNoCompress.json",
                                       "/RUXCheckACompress.json", "/RUXModifyFileInfo.json"};

/// What follows the name of DB3's file in that of the copy that stays when it is no JSON.
constexpr char kDamagedSuffix[] = ".damaged";

class Journal {
  public:
    enum class State {
        None,
        Whole,
        Unfinished,  ///< the files are untouched
        Unreadable,  ///< as yet: it may be whole
        Foreign,     ///< no file, or one that belongs neither to this user nor to the directory's
    };

    /// Looks for the journal of a save of the space in `directory`. It is read to the end.
    explicit Journal(std::string directory);

    State state() const { return mState; }
    /// Whether it is, or may be, whole: the files are not to be written then.
    bool isInTheWay() const { return mState == State::Whole || mState == State::Unreadable; }
    /// Whether it is whole and has a text for that file.
    bool holds(size_t file) const { return mState == State::Whole && mHeader.isIn[file] != 0; }
    /// The text that it holds for a file.
    std::string text(size_t file) const;

    /// Makes a journal of what the chosen files hold, unless there is one already. False, and
    /// nothing of it is there, when a file cannot be read or the journal cannot be put on disk; if
    /// it cannot be removed either, it counts as whole.
    bool setDown(const std::array<bool, kDatabaseFiles.size()>& files);
    /// Gives the files that are there the texts of a whole one, and removes it. False when it has
    /// to stay, as a file cannot be opened or the disk does not take it.
    bool takeBack();
    /// Removes it. False when that cannot be put on disk.
    bool drop();

  private:
    /// What it begins with; the texts follow without gaps.
    struct Header {
        std::array<char, 8> name = {'R', 'U', 'X', 'S', 'a', 'v', 'e', '1'};
        std::array<uint8_t, 8> isIn = {};  // by file
        std::array<TextStamp, kDatabaseFiles.size()> texts;
        uint64_t check = 0;  // of what stands before

        uint64_t sum() const;
    };

    std::string path() const { return mDirectory + "/RUXSave.journal"; }
    std::string pathOf(size_t file) const { return mDirectory + kDatabaseFiles[file]; }
    bool read();
    bool write(const std::array<bool, kDatabaseFiles.size()>& files);
    bool copyBack(size_t file) const;
    uint64_t offsetOf(size_t file) const;

    std::string mDirectory;
    android::base::unique_fd mFile;
    State mState = State::None;
    Header mHeader;
};

}  // namespace rux
