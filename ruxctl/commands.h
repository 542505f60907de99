/// What the program's subcommands do. Each returns an exit status and says on standard error what
/// went wrong.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ruxctl {

/// A space, the patterns of the paths that are meant, and the places to look at.
struct SpaceQuery {
    std::string spaceId;
    std::vector<std::string> patterns;
    std::vector<std::string> places;
};

/// One transaction with a string (or none), its result printed as it comes.
int callText(uint32_t code, const std::optional<std::string>& request);
/// One transaction with exactly the bytes that `hex` spells; prints its status and reply parcel.
int callHex(uint32_t code, const std::string& hex);

int getProperty(const std::string& name);
int setProperty(const std::string& name, const std::string& value);

int scan(const SpaceQuery& query);
int list(const SpaceQuery& query);
int compress(const std::vector<std::string>& spaceIds);
int restore(const SpaceQuery& query);
int setExceptRules(const std::vector<std::string>& patterns);

/// Sets the stop property of `operation` ("scan", "list" or "compress").
int stop(const std::string& operation);

}  // namespace ruxctl
