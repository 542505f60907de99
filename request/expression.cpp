#include "request/expression.h"

#include <algorithm>
#include <cstddef>
#include <utility>

#include "request/expression_compiler.h"

namespace rux {
namespace {

using Kind = Expression::Instruction::Kind;
using Result = Expression::Result;

constexpr size_t kMaxSteps = 20'000'000;        // a match; a fraction of a second
constexpr size_t kMaxStates = size_t{1} << 28;  // bits that a match may use to remember states

/// One match under way.
class Matcher {
  public:
    Matcher(const Expression::Program& program, const std::string& text)
          : mProgram(program), mText(text), mRegisters(program.registers, kUnset) {}

    Result run() {
        if (!mProgram.hasBackReferences) {
            const size_t states = mProgram.code.size() * width();
            if (states > kMaxStates) return Result::TooLong;
            mVisited.resize(states);
        }
        const bool matched = runFrom(0, 0, true);
        if (mSteps > kMaxSteps) return Result::TooLong;
        return matched ? Result::Match : Result::NoMatch;
    }

  private:
    static constexpr size_t kUnset = SIZE_MAX;

    /// What to do when the way being tried ends: try another, or first take back what it noted.
    struct Pending {
        size_t code;  // where the other way starts; kUnset for a register to be set back
        size_t place;
        size_t index;  // of the register
    };

    size_t width() const { return mText.size() + 1; }

    /// Whether the program from `code` on accepts at `place`, at the end of the text if `whole`.
    bool runFrom(size_t code, size_t place, bool whole) {
        const size_t base = mPending.size();
        mPending.push_back({code, place, 0});
        while (mPending.size() > base && mSteps <= kMaxSteps) {
            const Pending next = mPending.back();
            mPending.pop_back();
            if (next.code == kUnset) {
                mRegisters[next.index] = next.place;
            } else if (follow(next.code, next.place, whole)) {
                mPending.resize(base);  // what was noted on the way stays
                return true;
            }
        }
        mPending.resize(base);
        return false;
    }

    /// Follows one way until it accepts or ends; other ways are left in mPending.
    bool follow(size_t code, size_t place, bool whole) {
        while (++mSteps <= kMaxSteps) {
            if (!mVisited.empty()) {
                auto visited = mVisited[code * width() + place];
                if (visited) return false;
                visited = true;
            }
            const Expression::Instruction& at = mProgram.code[code];
            const size_t jump = code + static_cast<size_t>(static_cast<ptrdiff_t>(at.jump));
            switch (at.kind) {
                case Kind::Accept:
                    return !whole || place == mText.size();
                case Kind::Set:
                    if (place == mText.size()) return false;
                    if (!mProgram.sets[at.value][byteAt(place)]) return false;
                    ++place;
                    break;
                case Kind::Split:
                    mPending.push_back({jump, place, 0});
                    break;
                case Kind::Jump:
                    code = jump;
                    continue;
                case Kind::Begin:
                    if (place != mBegin) return false;
                    break;
                case Kind::End:
                    if (place != mText.size()) return false;
                    break;
                case Kind::Boundary:
                case Kind::NotBoundary:
                    if (isBoundary(place) != (at.kind == Kind::Boundary)) return false;
                    break;
                case Kind::Save:
                    note(at.value, place);
                    break;
                case Kind::Progress:
                    // Without it an empty turn would follow the other for ever; where states are
                    // remembered none can.
                    if (mProgram.hasBackReferences && mRegisters[at.value] == place) {
                        code = jump;
                        continue;
                    }
                    break;
                case Kind::BackReference:
                    if (!passReference(at.value, &place)) return false;
                    break;
                case Kind::LookAhead:
                case Kind::LookPast:
                    if (looksLike(code, place) != (at.kind == Kind::LookAhead)) return false;
                    code = jump;
                    continue;
            }
            ++code;
        }
        return false;
    }

    unsigned char byteAt(size_t place) const { return static_cast<unsigned char>(mText[place]); }

    bool isBoundary(size_t place) const {
        const bool before = place > mBegin && mProgram.wordBytes[byteAt(place - 1)];
        const bool after = place < mText.size() && mProgram.wordBytes[byteAt(place)];
        return before != after;
    }

    void note(size_t index, size_t place) {
        if (!mProgram.hasBackReferences) return;  // nobody reads it
        mPending.push_back({kUnset, mRegisters[index], index});
        mRegisters[index] = place;
    }

    /// A group that has matched nothing yet is referred to in vain, as in the library.
    bool passReference(size_t index, size_t* place) const {
        const size_t start = mRegisters[index];
        const size_t end = mRegisters[index + 1];
        if (start == kUnset || end == kUnset || start > end) return false;
        const size_t length = end - start;
        if (mText.compare(*place, length, mText, start, length) != 0) return false;
        *place += length;
        return true;
    }

    /// Runs the program of the look-ahead at `code`. As in the library, that is a match of its own,
    /// for which the text starts here.
    bool looksLike(size_t code, size_t place) {
        const size_t begin = std::exchange(mBegin, place);
        const bool matched = runFrom(code + 1, place, false);
        mBegin = begin;
        if (!mVisited.empty()) {
            // The next run, from elsewhere, must find all states open.
            const size_t end = code + static_cast<size_t>(mProgram.code[code].jump);
            std::fill(mVisited.begin() + static_cast<ptrdiff_t>((code + 1) * width()),
                      mVisited.begin() + static_cast<ptrdiff_t>(end * width()), false);
            mSteps += (end - code) * width() / 64;
        }
        return matched;
    }

    const Expression::Program& mProgram;
    const std::string& mText;
    std::vector<size_t> mRegisters;
    std::vector<Pending> mPending;
    std::vector<bool> mVisited;  // by instruction, then place
    size_t mBegin = 0;           // where the text starts
    size_t mSteps = 0;
};

}  // namespace

Expression::Expression(const std::string& pattern)
      : mProgram(ExpressionCompiler(pattern).compile()) {}

Expression::Result Expression::match(const std::string& text) const {
    return Matcher(mProgram, text).run();
}

}  // namespace rux
