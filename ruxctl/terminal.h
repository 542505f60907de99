/// The terminal: colour, a line that changes, questions, and Ctrl-C.
#pragma once

#include <string>

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

/// "[#####-----]", `width` characters between the brackets, `part` of them (0 to 1) filled.
std::string bar(double part, int width);

/// Whether there is somebody to ask: standard input and standard error are a terminal.
bool canAsk();
/// Asks a question that "y" or "yes" answers with yes.
bool confirmed(const std::string& question);

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
