/// One regular expression: the standard library's language, without its appetite.
#pragma once

#include <bitset>
#include <cstdint>
#include <string>
#include <vector>

namespace rux {

/// An ECMAScript expression as `std::regex` reads it, matched against whole texts.
///
/// The library's matcher recurses for every character of the text and backtracks without bound.
/// This one works on the heap and gives each match a limited number of steps; within them its
/// answer is the library's. An expression without back-references meets no state twice at the same
/// place, so its steps are at most the length of the text times that of the program.
class Expression {
  public:
    /// Throws `std::regex_error` for what is no expression, with the library's own reason where it
    /// is the library that finds out.
    explicit Expression(const std::string& pattern);

    enum class Result { Match, NoMatch, TooLong };
    /// Matches all of `text`. `TooLong`: undecided within the steps.
    Result match(const std::string& text) const;

    /// One step of the program. Jumps are relative, so that a piece of program can be copied.
    struct Instruction {
        enum class Kind : uint8_t {
            Set,            // one byte of sets[value]
            Split,          // goes on at the next instruction, or else at `jump`
            Jump,           // goes on at `jump`
            Begin,          // the start of the text
            End,            // the end of the text
            Boundary,       // a word's start or end
            NotBoundary,    // neither
            Save,           // notes the place in register `value`
            BackReference,  // what registers `value` and `value` + 1 enclose
            Progress,       // goes on at `jump` when nothing was consumed since register `value`
            LookAhead,      // the program from here to `jump` must match at this place
            LookPast,       // it must not
            Accept,         // the end of a look-ahead's program, or of the whole
        } kind;
        int32_t jump;
        uint32_t value;
    };
    using ByteSet = std::bitset<256>;

    struct Program {
        std::vector<Instruction> code;
        std::vector<ByteSet> sets;
        ByteSet wordBytes;       // what \b takes for a part of a word
        uint32_t registers = 0;  // of groups, then of loops
        bool hasBackReferences = false;
    };

  private:
    Program mProgram;
};

}  // namespace rux
