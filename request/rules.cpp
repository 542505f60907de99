#include "request/rules.h"

#include "db/json_text.h"

namespace rux {
namespace {

/// Takes the member `name` when it is of that type.
void take(const Json::Value& element, const char* name, bool& value) {
    const Json::Value* member = memberOf(element, name);
    if (member != nullptr && member->isBool()) value = member->asBool();
}
void take(const Json::Value& element, const char* name, uint64_t& value) {
    const Json::Value* member = memberOf(element, name);
    if (member != nullptr && member->type() != Json::realValue && member->isUInt64())
        value = member->asUInt64();
}

SpaceRule ruleOf(const Json::Value& element) {
    SpaceRule rule;
    if (!element.isObject()) return rule;
    const Json::Value* id = memberOf(element, "sid");
    const Json::Value* patterns = memberOf(element, "regs");
    const Json::Value* places = memberOf(element, "dirs");
    if (id == nullptr) {
        rule.id = SpaceRule::Id::Absent;
    } else if (id->isString()) {
        rule.id = SpaceRule::Id::Given;
        rule.spaceId = id->asString();
    }
    if (patterns != nullptr) rule.patterns = stringsOf(*patterns);
    if (places != nullptr && places->isArray()) rule.places = stringsOf(*places);
    rule.hasUnusablePlaces =
            places != nullptr && !places->empty() && (!rule.places || rule.places->empty());
    take(element, "refresh", rule.refreshes);
    take(element, "follow_links", rule.reach.followsLinks);
    take(element, "one_file_system", rule.reach.staysOnFileSystem);
    take(element, "min_size", rule.reach.minBytes);
    take(element, "max_size", rule.reach.maxBytes);
    take(element, "lone_size", rule.reach.loneBytes);
    return rule;
}

}  // namespace

bool readSpaceRules(const std::string& text, std::vector<SpaceRule>& rules) {
    Json::Value request;
    if (!parseJson(text, request)) return false;
    if (!request.isArray()) return true;
    rules.reserve(request.size());
    for (const Json::Value& element : request) rules.push_back(ruleOf(element));
    return true;
}

bool readStrings(const std::string& text, std::vector<std::string>& strings) {
    Json::Value request;
    if (!parseJson(text, request)) return false;
    strings = stringsOf(request);
    return true;
}

}  // namespace rux
