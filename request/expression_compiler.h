/// From the text of an expression to its program.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "request/expression.h"

namespace rux {

/// Reads an expression in one pass, with a stack of its open groups instead of a recursion.
///
/// What single bytes an atom stands for (an escape, a bracket expression, the dot) is asked of the
/// standard library itself, byte by byte; only the structure around the atoms is read here.
class ExpressionCompiler {
  public:
    explicit ExpressionCompiler(const std::string& pattern) : mPattern(pattern) {}

    /// Throws `std::regex_error`.
    Expression::Program compile();

  private:
    using Kind = Expression::Instruction::Kind;

    struct Group {
        enum class Type { Whole, Capturing, Plain, LookAhead, LookPast } type;
        size_t start;               // of its code
        size_t alternative;         // start of the code of the alternative being read
        std::vector<size_t> exits;  // jumps from the ends of its alternatives to its own end
        uint32_t number;            // of a capturing group
    };

    bool atEnd() const { return mAt >= mPattern.size(); }
    bool takeText(std::string_view text);
    std::string_view takeEscape();
    std::string_view takeBracket();
    uint32_t takeNumber();

    void readTerm();
    void readEscape();
    void readQuantifiers();
    void openGroup();
    void closeGroup();
    void startAlternative();
    void finishAlternatives();

    void emit(Kind kind, uint32_t value = 0, int32_t jump = 0);
    void emitAtom(const std::string& atom);
    void insert(size_t at, Expression::Instruction instruction);
    void repeatTerm(uint32_t least, uint32_t most);
    void appendCopy(const std::vector<Expression::Instruction>& term);
    void wrapLoop(size_t start);
    size_t size() const { return mProgram.code.size(); }

    const std::string& mPattern;
    size_t mAt = 0;
    Expression::Program mProgram;
    std::vector<Group> mGroups;
    std::map<std::string, uint32_t> mAtoms;  // sets that have been asked for
    uint32_t mGroupCount = 0;
    uint32_t mLoopCount = 0;
    size_t mTermStart = 0;       // of the code of the term that was read last
    bool mQuantifiable = false;  // whether a quantifier may follow here
};

}  // namespace rux
