#include "db/json_writer.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "db/json_text.h"

namespace rux {
namespace {

/// Whether a byte stands for itself in a string, whatever its neighbours.
bool isPlain(char byte) {
    return byte >= 0x20 && byte < 0x7f && byte != '"' && byte != '\\';
}

class Writer {
  public:
    explicit Writer(const std::function<void(std::string_view)>& take) : mTake(take) {
        mPiece.reserve(kJsonPiece);
    }

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
        while (!text.empty()) {
            const size_t fits = std::min(text.size(), kJsonPiece - mPiece.size());
            mPiece.append(text.substr(0, fits));
            text.remove_prefix(fits);
            if (mPiece.size() == kJsonPiece) flush();
        }
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
        for (auto member = value.begin(); member != value.end(); ++member) {
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
        write("[");
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            if (i > 0) write(",");
            writeValue(value[i]);
        }
        write("]");
    }

    void writeString(std::string_view text) {
        if (std::all_of(text.begin(), text.end(), isPlain)) {
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

    const std::function<void(std::string_view)>& mTake;
    std::string mPiece;
};

}  // namespace

void writeJson(const Json::Value& value, const std::function<void(std::string_view)>& take) {
    Writer writer(take);
    writer.writeValue(value);
    writer.write("\n");
    writer.flush();
}

}  // namespace rux
