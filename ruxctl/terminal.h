/// The terminal: colour, tables, a line that changes, questions, and Ctrl-C.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ruxctl {

/// A manner of writing. On standard output only, and only when that is a terminal, NO_COLOR is
/// unset or empty (no-color.org) and TERM is not "dumb"; otherwise the text stays as it is.
enum class Ink { Bold, Faint, Good, Warning, Bad };
std::string inked(Ink ink, const std::string& text);

/// A line on standard error that is written over and over. Nothing is written unless that is a
/// terminal.
class StatusLine {
  public:
    StatusLine();
    ~StatusLine() { clear(); }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;

    /// Shows `text`, cut to the width of the terminal.
    void show(const std::string& text);
    void clear();

  private:
    const bool mIsTerminal;
    bool mShown = false;
};

/// A path as it is written for people: one with control characters is quoted as shells read it
/// ($'a\nb'), so that it stays on its line and can do nothing to a terminal.
std::string shown(const std::string& path);

/// Rows of cells, printed with the columns aligned: the first to the left, and so the last if that
/// is `isText`, the others to the right. The first row is the heading.
void printTable(const std::vector<std::vector<std::string>>& rows, bool isText = false);

/// How far something is, for a line: a bar as long as the terminal allows, `done` of `all` as
/// `amount` writes them, the rate, and the time that is left at that rate.
std::string progress(int64_t done, int64_t all, double seconds,
                     const std::function<std::string(int64_t)>& amount);

/// Asks a question that "y" or "yes" answers with yes, on the process's terminal, whatever its
/// standard streams are. Nothing when it has none.
std::optional<bool> confirmed(const std::string& question);

/// While it lives Ctrl-C (SIGINT) and SIGTERM are only noted. A second one ends the program.
class Interrupts {
  public:
    Interrupts();
    ~Interrupts();
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

    static bool any();
};

}  // namespace ruxctl
