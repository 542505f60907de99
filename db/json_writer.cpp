#include "db/json_writer.h"

#include <charconv>
#include <string>

#include "db/json_text.h"

namespace rux {
namespace {

/// Whether every byte stands for itself in a string, whatever its neighbours. All of them are
/// looked at: without a way out the compiler takes many at once.
bool isPlain(std::string_view text) {
    unsigned special = 0;
    for (const unsigned char byte : text)
        special |=
                static_cast<unsigned>(byte < 0x20 || byte >= 0x7f || byte == '"' || byte == '\\');
    return special == 0;
}

class Writer {
  public:
    explicit Writer(const TakePiece& take) : mTake(take) { mPiece.reserve(kPieceBytes); }

    void writeValue(const Json::Value& value) {
        switch (value.type()) {
            case Json::objectValue:
                writeObject(value);
                break;
            case Json::arrayValue:
                writeArray(value);
                break;
            case Json::stringValue:
                writeString(stringOf(value));
                break;
            case Json::intValue:
                writeNumber(value.asLargestInt());
                break;
            case Json::uintValue:
                writeNumber(value.asLargestUInt());
                break;
            default:  // few and short: the library's own text, less its line feed
                write(withoutLineFeed(Json::FastWriter().write(value)));
        }
    }

    void write(std::string_view text) {
        while (mPiece.size() + text.size() >= kPieceBytes) {
            const size_t fits = kPieceBytes - mPiece.size();
            mPiece.append(text.substr(0, fits));
            text.remove_prefix(fits);
            flush();
        }
        mPiece.append(text);
    }

    void flush() {
        if (!mPiece.empty()) mTake(mPiece);
        mPiece.clear();
    }

  private:
    static std::string withoutLineFeed(std::string text) {
        text.pop_back();
        return text;
    }

    void writeObject(const Json::Value& value) {
        const char* separator = "{";
        const auto last = value.end();
        for (auto member = value.begin(); member != last; ++member) {
            write(separator);
            separator = ",";
            const char* end = nullptr;
            const char* name = member.memberName(&end);
            writeString({name, static_cast<size_t>(end - name)});
            write(":");
            writeValue(*member);
        }
        write(value.empty() ? "{}" : "}");
    }

    void writeArray(const Json::Value& value) {
        const char* separator = "[";
        for (const Json::Value& element : value) {
            write(separator);
            separator = ",";
            writeValue(element);
        }
        write(value.empty() ? "[]" : "]");
    }

    void writeString(std::string_view text) {
        if (isPlain(text)) {
            write("\"");
            write(text);
            write("\"");
        } else {
            const Json::Value value(text.data(), text.data() + text.size());
            write(withoutLineFeed(Json::FastWriter().write(value)));
        }
    }

    template <typename Integer>
    void writeNumber(Integer number) {
        char digits[24];
        const auto [end, error] = std::to_chars(digits, digits + sizeof(digits), number);
        write({digits, static_cast<size_t>(end - digits)});
    }

    const TakePiece& mTake;
    std::string mPiece;
};

}  // namespace

void writeJson(const Json::Value& value, const TakePiece& take) {
    Writer writer(take);
    writer.writeValue(value);
    writer.write("\n");
    writer.flush();
}

}  // namespace rux
