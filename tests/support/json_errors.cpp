// In place of the JSON library's own: what it calls when a value is not of the type that is asked
// for. On a device the library is built without exceptions, and these end the process. A program
// that is linked with this file shows that no input brings it there.

#include <json/assertions.h>

#include <cstdio>
#include <cstdlib>

namespace Json {

void throwRuntimeError(const String& message) {
    fprintf(stderr, "JSON library: %s\n", message.c_str());
    abort();
}

void throwLogicError(const String& message) {
    throwRuntimeError(message);
}

}  // namespace Json
