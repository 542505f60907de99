#include "request/expression_compiler.h"

#include <mutex>
#include <regex>

namespace rux {
namespace {

using Error = std::regex_constants::error_type;

/// Instructions. The library stops at 100,000 states, each of which takes one to three of them.
constexpr size_t kMaxProgram = 300000;
constexpr size_t kMaxNesting = 1000;   // groups in groups
constexpr size_t kMaxSets = 4096;      // different atoms
constexpr size_t kMaxBracket = 65536;  // bytes of one bracket expression
constexpr uint32_t kUnbounded = UINT32_MAX;

/// Bits of a loop's register number; those of groups are below. The two are told apart until the
/// number of groups is known.
constexpr uint32_t kLoopRegister = 1U << 31;

[[noreturn]] void fail(Error reason) {
    throw std::regex_error(reason);
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The bytes that the library matches with an expression of one atom.
Expression::ByteSet askLibrary(const std::string& atom) {
    const std::regex expression(atom);
    Expression::ByteSet bytes;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char byte = static_cast<char>(i);
        bytes[i] = std::regex_match(&byte, &byte + 1, expression);
    }
    return bytes;
}

/// The same; the few atoms of one or two characters are asked for once in the process's life.
Expression::ByteSet bytesOf(const std::string& atom) {
    if (atom.size() == 1 && atom != ".") {
        return Expression::ByteSet().set(static_cast<unsigned char>(atom[0]));
    }
    if (atom.size() > 2) return askLibrary(atom);
    static std::mutex mutex;
    static std::map<std::string, Expression::ByteSet> known;
    const std::lock_guard lock(mutex);
    if (const auto found = known.find(atom); found != known.end()) return found->second;
    return known[atom] = askLibrary(atom);
}

}  // namespace

Expression::Program ExpressionCompiler::compile() {
    mGroups.push_back({Group::Type::Whole, 0, 0, {}, 0});
    while (!atEnd()) readTerm();
    if (mGroups.size() != 1) fail(std::regex_constants::error_paren);
    finishAlternatives();
    emit(Kind::Accept);
    mProgram.registers = 2 * (mGroupCount + 1) + mLoopCount;
    for (Expression::Instruction& instruction : mProgram.code) {
        const bool ofLoop = (instruction.value & kLoopRegister) != 0;
        if (ofLoop) {
            instruction.value = 2 * (mGroupCount + 1) + (instruction.value & ~kLoopRegister);
        }
    }
    mProgram.wordBytes = bytesOf("\\w");
    return std::move(mProgram);
}

/// Reads one atom with its quantifiers, or one piece of structure.
void ExpressionCompiler::readTerm() {
    mQuantifiable = false;
    mTermStart = size();
    switch (const char c = mPattern[mAt]) {
        case '^':
            ++mAt;
            return emit(Kind::Begin);
        case '$':
            ++mAt;
            return emit(Kind::End);
        case '|':
            ++mAt;
            return startAlternative();
        case '(':
            return openGroup();
        case ')':
            closeGroup();
            break;
        case '\\':
            readEscape();
            break;
        case '[':
            emitAtom(std::string(takeBracket()));
            mQuantifiable = true;
            break;
        case '*':
        case '+':
        case '?':
        case '{':
            fail(std::regex_constants::error_badrepeat);
        case '\0':
            // The library takes this byte for one of its special ones, which stands nowhere.
            fail(std::regex_constants::error_paren);
        default:
            ++mAt;
            emitAtom(std::string(1, c));
            mQuantifiable = true;
    }
    if (mQuantifiable) readQuantifiers();
}

bool ExpressionCompiler::takeText(std::string_view text) {
    if (mPattern.compare(mAt, text.size(), text) != 0) return false;
    mAt += text.size();
    return true;
}

/// Takes an escape that stands for a byte or a class of bytes.
std::string_view ExpressionCompiler::takeEscape() {
    const size_t start = mAt;
    size_t length = 2;
    const char c = start + 1 < mPattern.size() ? mPattern[start + 1] : '\0';
    if (c == 'c') length = 3;
    if (c == 'x') length = 4;
    if (c == 'u') length = 6;
    if (start + length > mPattern.size()) fail(std::regex_constants::error_escape);
    mAt = start + length;
    return std::string_view(mPattern).substr(start, length);
}

/// Takes a bracket expression, whatever stands in it, up to its closing bracket.
std::string_view ExpressionCompiler::takeBracket() {
    const size_t start = mAt;
    mAt += mPattern.compare(mAt, 2, "[^") == 0 ? 2 : 1;
    while (!atEnd() && mPattern[mAt] != ']') {
        const char kind = mAt + 1 < mPattern.size() ? mPattern[mAt + 1] : '\0';
        const bool isClass = mPattern[mAt] == '[' && (kind == '.' || kind == ':' || kind == '=');
        if (isClass) {  // a class by name: "[:alpha:]"
            mAt = mPattern.find(kind, mAt + 2);
            if (mAt == std::string::npos) fail(std::regex_constants::error_ctype);
            mAt += 2;
        } else if (mPattern[mAt] == '\\') {
            takeEscape();
        } else {
            ++mAt;
        }
    }
    if (atEnd()) fail(std::regex_constants::error_brack);
    ++mAt;
    if (mAt - start > kMaxBracket) fail(std::regex_constants::error_complexity);
    return std::string_view(mPattern).substr(start, mAt - start);
}

/// A decimal number; one that no program could hold reads as more than that.
uint32_t ExpressionCompiler::takeNumber() {
    uint32_t number = 0;
    for (; !atEnd() && isDigit(mPattern[mAt]); ++mAt) {
        number = number * 10 + static_cast<uint32_t>(mPattern[mAt] - '0');
        if (number > kMaxProgram) number = kMaxProgram + 1;
    }
    return number;
}

void ExpressionCompiler::readEscape() {
    if (takeText("\\b")) return emit(Kind::Boundary);
    if (takeText("\\B")) return emit(Kind::NotBoundary);
    mQuantifiable = true;
    const char c = mAt + 1 < mPattern.size() ? mPattern[mAt + 1] : '\0';
    if (c < '1' || c > '9') return emitAtom(std::string(takeEscape()));

    ++mAt;
    const uint32_t number = takeNumber();
    bool complete = number <= mGroupCount;
    for (const Group& group : mGroups) {
        if (group.type == Group::Type::Capturing && group.number == number) complete = false;
    }
    if (!complete) fail(std::regex_constants::error_backref);
    mProgram.hasBackReferences = true;
    emit(Kind::BackReference, 2 * number);
}

void ExpressionCompiler::openGroup() {
    ++mAt;
    Group group = {Group::Type::Capturing, size(), size(), {}, 0};
    if (takeText("?:")) {
        group.type = Group::Type::Plain;
    } else if (takeText("?=")) {
        group.type = Group::Type::LookAhead;
        emit(Kind::LookAhead);
    } else if (takeText("?!")) {
        group.type = Group::Type::LookPast;
        emit(Kind::LookPast);
    } else {
        if (takeText("?")) fail(std::regex_constants::error_paren);
        group.number = ++mGroupCount;
        emit(Kind::Save, 2 * group.number);
    }
    group.alternative = size();
    mGroups.push_back(std::move(group));
    if (mGroups.size() > kMaxNesting) fail(std::regex_constants::error_complexity);
}

void ExpressionCompiler::closeGroup() {
    ++mAt;
    if (mGroups.size() == 1) fail(std::regex_constants::error_paren);
    finishAlternatives();
    const Group group = std::move(mGroups.back());
    mGroups.pop_back();
    mTermStart = group.start;
    mQuantifiable = group.type == Group::Type::Capturing || group.type == Group::Type::Plain;
    if (group.type == Group::Type::Capturing) emit(Kind::Save, 2 * group.number + 1);
    if (!mQuantifiable) {
        emit(Kind::Accept);
        mProgram.code[group.start].jump = static_cast<int32_t>(size() - group.start);
    }
}

/// Ends an alternative at a "|": what was read so far of the group is tried first.
void ExpressionCompiler::startAlternative() {
    Group& group = mGroups.back();
    insert(group.alternative,
           {Kind::Split, static_cast<int32_t>(size() + 2 - group.alternative), 0});
    group.exits.push_back(size());
    emit(Kind::Jump);
    group.alternative = size();
}

void ExpressionCompiler::finishAlternatives() {
    for (const size_t exit : mGroups.back().exits) {
        mProgram.code[exit].jump = static_cast<int32_t>(size() - exit);
    }
}

/// Reads the quantifiers behind a term. Whether one is lazy makes no difference to a whole match.
void ExpressionCompiler::readQuantifiers() {
    while (!atEnd()) {
        uint32_t least = 0;
        uint32_t most = kUnbounded;
        if (takeText("+")) {
            least = 1;
        } else if (takeText("?")) {
            most = 1;
        } else if (takeText("{")) {
            if (atEnd() || !isDigit(mPattern[mAt])) fail(std::regex_constants::error_badbrace);
            least = takeNumber();
            most = least;
            if (takeText(",")) {
                most = !atEnd() && isDigit(mPattern[mAt]) ? takeNumber() : kUnbounded;
            }
            if (!takeText("}")) fail(std::regex_constants::error_brace);
            if (most < least) fail(std::regex_constants::error_badbrace);
        } else if (!takeText("*")) {
            return;
        }
        takeText("?");
        repeatTerm(least, most);
    }
}

void ExpressionCompiler::emit(Kind kind, uint32_t value, int32_t jump) {
    if (size() >= kMaxProgram) fail(std::regex_constants::error_space);
    mProgram.code.push_back({kind, jump, value});
}

void ExpressionCompiler::emitAtom(const std::string& atom) {
    const auto [known, isNew] =
            mAtoms.try_emplace(atom, static_cast<uint32_t>(mProgram.sets.size()));
    if (isNew) {
        if (mProgram.sets.size() == kMaxSets) fail(std::regex_constants::error_complexity);
        mProgram.sets.push_back(bytesOf(atom));
    }
    emit(Kind::Set, known->second);
}

void ExpressionCompiler::insert(size_t at, Expression::Instruction instruction) {
    emit(instruction.kind);  // for the limit
    mProgram.code.pop_back();
    mProgram.code.insert(mProgram.code.begin() + static_cast<ptrdiff_t>(at), instruction);
}

void ExpressionCompiler::appendCopy(const std::vector<Expression::Instruction>& term) {
    if (size() + term.size() > kMaxProgram) fail(std::regex_constants::error_space);
    mProgram.code.insert(mProgram.code.end(), term.begin(), term.end());
}

/// Makes the code from `start` to the end the turn of a loop, run once or more.
void ExpressionCompiler::wrapLoop(size_t start) {
    const uint32_t loop = kLoopRegister | mLoopCount++;
    insert(start, {Kind::Save, 0, loop});
    emit(Kind::Progress, loop, 3);
    emit(Kind::Split, 0, 2);
    emit(Kind::Jump, 0, -static_cast<int32_t>(size() - start));
}

/// Repeats the term that was read last at least `least` and at most `most` times.
void ExpressionCompiler::repeatTerm(uint32_t least, uint32_t most) {
    const size_t start = mTermStart;
    const std::vector<Expression::Instruction> term(mProgram.code.begin() +
                                                            static_cast<ptrdiff_t>(start),
                                                    mProgram.code.end());
    if (term.empty()) return;  // nothing, however often
    mProgram.code.resize(start);
    if (most == kUnbounded) {
        for (uint32_t i = 1; i < least; ++i) appendCopy(term);
        const size_t loop = size();
        appendCopy(term);
        wrapLoop(loop);
        if (least == 0) insert(loop, {Kind::Split, static_cast<int32_t>(size() + 1 - loop), 0});
        return;
    }
    for (uint32_t i = 0; i < least; ++i) appendCopy(term);
    // The rest is optional, each turn only after the one before: a chain of choices to leave.
    const uint32_t rest = most - least;
    if (rest > kMaxProgram) fail(std::regex_constants::error_space);
    for (uint32_t i = 0; i < rest; ++i) {
        const size_t left = (rest - i) * (term.size() + 1);
        if (size() + left > kMaxProgram) fail(std::regex_constants::error_space);
        mProgram.code.push_back({Kind::Split, static_cast<int32_t>(left), 0});
        appendCopy(term);
    }
}

}  // namespace rux
