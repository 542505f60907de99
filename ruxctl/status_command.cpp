#include <algorithm>
#include <ctime>
#include <iostream>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/table.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

std::string ago(time_t then) {
    const auto seconds = static_cast<int64_t>(time(nullptr) - then);
    if (seconds < 60) return "just now";
    if (seconds < 3600) return counted(seconds / 60, "minute") + " ago";
    if (seconds < 86400) return counted(seconds / 3600, "hour") + " ago";
    return counted(seconds / 86400, "day") + " ago";
}

}  // namespace

int status() {
    const auto client = Client::connect();
    std::vector<Space> spaces;
    time_t changed = 0;
    for (const std::string& spaceId : spaceIds()) {
        spaces.push_back(lookAt(spaceId));
        changed = std::max(changed, spaces.back().changed);
    }
    std::string running = "idle";
    if (client && isBusy(*client)) {
        running = "busy with " + runningOperation().value_or("something");
    } else if (changed > 0) {
        running += ", last change " + ago(changed);
    }
    if (client) running += ", holds " + humanBytes(client->memory());
    std::cout << "service: "
              << (client ? inked(Ink::Good, "running") + ", " + running
                         : inked(Ink::Bad, "no answer"))
              << "\n";
    std::vector<std::vector<std::string>> rows = {
            {"SPACE", "FILES", "CONTENTS", "LINKED", "DATABASE", "CHANGED"}};
    for (const Space& space : spaces) {
        rows.push_back({space.id, grouped(space.files), grouped(space.toCompress),
                        grouped(space.compressed), humanBytes(space.bytes), ago(space.changed)});
    }
    if (rows.size() > 1) {
        printTable(rows);
    } else {
        std::cout << "no spaces; begin with `ruxctl scan --space NAME DIR`\n";
    }
    return client ? kDone : noService();
}

}  // namespace ruxctl
