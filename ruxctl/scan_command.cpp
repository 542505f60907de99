#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/messages.h"
#include "ruxctl/operation.h"
#include "ruxctl/paths.h"
#include "ruxctl/terminal.h"
#include "ruxctl/units.h"

namespace ruxctl {

int scan(const SpaceQuery& query) {
    SpaceQuery absolute = query;
    for (std::string& place : absolute.places) {
        place = absolutePath(place);
        if (access(place.c_str(), F_OK) != 0)
            return fail({kFailed, place + ": " + strerror(errno)});
    }
    const auto client = Client::connect();
    if (!client) return noService();
    const int64_t before = recordCount(query.spaceId);

    StatusLine line;
    const Outcome outcome =
            carryOut(*client, kScanOperation, ruleText(absolute), [&](double seconds) {
                // How many files there will be nobody knows; the service says nothing until its
                // end.
                const std::string known =
                        before > 0 ? ", " + counted(before, "file") + " known before" : "";
                line.show(Interrupts::any() ? "Stopping; what has been recorded is being saved"
                                            : "Scanning for " + duration(seconds) + known);
            });
    line.clear();
    if (outcome.failure) return fail(*outcome.failure);
    if (!exists(query.spaceId)) {
        return fail({kFailed, "the service could not use the space " + query.spaceId +
                                      "; its log says why"});
    }
    const int64_t after = recordCount(query.spaceId);
    std::cout << counted(after, "file") << " recorded, "
              << grouped(std::max<int64_t>(after - before, 0)) << " of them new, in "
              << duration(outcome.seconds) << "\n";
    if (outcome.stopped) {
        std::cerr << "ruxctl: stopped; what was recorded is kept, the same scan again goes on\n";
        return kInterrupted;
    }
    return kDone;
}

}  // namespace ruxctl
