#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "ruxctl/commands.h"
#include "ruxctl/database.h"
#include "ruxctl/groups.h"
#include "ruxctl/messages.h"
#include "ruxctl/treemap.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

constexpr int64_t kFewestParts = 40;  // a directory with more than one of so many is divided
constexpr double kProportion = 2;     // of the map, width by height
constexpr size_t kMaxCells = 24;      // in a directory of the map
constexpr int kMaxDepth = 3;          // of directories in one another
constexpr size_t kMaxRows = 40;       // of the table of directories
constexpr size_t kMaxGroups = 50;     // that are shown
constexpr size_t kMaxMembers = 1000;  // of each

constexpr char kStyle[] =
#include "ruxctl/report.css.h"
        ;
constexpr char kScript[] =
#include "ruxctl/report.js.h"
        ;

/// What files have to do with space.
struct Share {
    int64_t reclaimable = 0;  // their share of what linking would give back
    int64_t given = 0;        // and of what links have given back
    int64_t bytes() const { return reclaimable + given; }
};

/// A directory as the page shows it.
struct DirectoryShare : Share {
    std::string path;
    std::vector<DirectoryShare> parts;  // directories in it, the largest first
};

struct SpaceShare : Share {
    Space space;
    std::string countedIn;  // the space before that counts some of its files
};

struct Report {
    std::map<std::string, SpaceShare> spaces;
    int64_t files = 0;          // recorded in any of them
    std::vector<Group> groups;  // the largest first
    DirectoryShare root;        // of the smallest tree that holds all
};

/// A directory and what lies below it, which its share includes.
struct Directory : Share {
    std::map<std::string, Directory> below;
};

void add(Directory& root, const std::string& path, int64_t reclaimable, int64_t given) {
    Directory* directory = &root;
    size_t start = 1;
    while (true) {
        directory->reclaimable += reclaimable;
        directory->given += given;
        const size_t end = path.find('/', start);
        if (end == std::string::npos) return;
        directory = &directory->below[path.substr(start, end - start)];
        start = end + 1;
    }
}

/// What the page shows of a directory: its parts are told as long as they are a large share of the
/// whole, its own files as one more. One that holds nothing but another one is not shown.
DirectoryShare shareOf(const Directory& directory, const std::string& path, int64_t whole) {
    const Share& all = directory;
    DirectoryShare share = {all, path.empty() ? "/" : path, {}};
    if (directory.bytes() <= whole / kFewestParts) return share;
    DirectoryShare own = {all, path + "/*", {}};
    for (const auto& [name, child] : directory.below) {
        if (child.bytes() == 0) continue;
        if (child.bytes() == directory.bytes()) return shareOf(child, path + "/" + name, whole);
        share.parts.push_back(shareOf(child, path + "/" + name, whole));
        own.reclaimable -= child.reclaimable;
        own.given -= child.given;
    }
    if (own.bytes() > 0 && !share.parts.empty()) share.parts.push_back(own);
    std::stable_sort(share.parts.begin(), share.parts.end(),
                     [](const DirectoryShare& a, const DirectoryShare& b) {
                         return a.bytes() > b.bytes();
                     });
    return share;
}

int64_t differentPaths(const std::vector<std::string>& spaceIds) {
    std::vector<std::string> paths;
    for (const std::string& spaceId : spaceIds) {
        std::vector<std::string> own = recordedPaths(spaceId);
        std::move(own.begin(), own.end(), std::back_inserter(paths));
    }
    std::sort(paths.begin(), paths.end());
    return std::unique(paths.begin(), paths.end()) - paths.begin();
}

Report reportOn(const std::vector<std::string>& chosen) {
    Report report;
    Directory root;
    for (const std::string& spaceId : chosen) {
        report.spaces[spaceId].space = lookAt(spaceId);
        report.files = report.spaces[spaceId].space.files;
    }
    if (chosen.size() > 1) report.files = differentPaths(chosen);
    for (Group& group : groupsOf(chosen, Which::All)) {
        report.spaces[group.spaceId].reclaimable += group.reclaimable;
        report.spaces[group.spaceId].given += group.given;
        if (!group.countedIn.empty()) report.spaces[group.spaceId].countedIn = group.countedIn;
        // All paths of a group have an equal part in it.
        const int64_t present = group.present();
        for (const Member& member : group.members) {
            if (member.isPresent())
                add(root, member.path, group.reclaimable / present, group.given / present);
        }
        if (group.reclaimable + group.given > 0) report.groups.push_back(std::move(group));
    }
    std::stable_sort(report.groups.begin(), report.groups.end(),
                     [](const Group& a, const Group& b) {
                         return a.reclaimable + a.given > b.reclaimable + b.given;
                     });
    report.root = shareOf(root, "", root.bytes());
    return report;
}

std::string escaped(const std::string& text) {
    return replaced(text, {{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}});
}

std::string percent(double part) {
    char text[32];
    snprintf(text, sizeof(text), "%.3f%%", part * 100);
    return text;
}

void figure(std::ostream& out, const char* kind, const std::string& number, const char* what) {
    out << "<div class=\"" << kind << "\"><b>" << number << "</b>" << what << "</div>\n";
}

void writeFigures(std::ostream& out, const Report& report) {
    const auto open = std::count_if(report.groups.begin(), report.groups.end(),
                                    [](const Group& group) { return group.reclaimable > 0; });
    out << "<div class=\"figures\">\n";
    figure(out, "free", humanBytes(report.root.reclaimable), "can be given back");
    figure(out, "given", humanBytes(report.root.given), "given back by links");
    figure(out, "", grouped(open), "groups of duplicates");
    figure(out, "", grouped(report.files), "files recorded");
    out << "</div>\n";
}

/// How much of what a directory's duplicates take or took is still to be given back.
std::string shareStyle(const DirectoryShare& directory) {
    const double share =
            static_cast<double>(directory.reclaimable) / static_cast<double>(directory.bytes());
    return "--share:" + percent(share);
}

/// The parts of a directory as cells in one of the given proportion, and theirs in them.
void writeCells(std::ostream& out, const DirectoryShare& directory, double proportion, int depth) {
    std::vector<double> weights;
    for (const DirectoryShare& part : directory.parts) {
        if (weights.size() == kMaxCells) break;
        weights.push_back(static_cast<double>(part.bytes()));
    }
    const std::vector<Cell> cells = treemap(weights, proportion);
    for (size_t i = 0; i < cells.size(); ++i) {
        const DirectoryShare& part = directory.parts[i];
        const std::string text = part.path + ": " + humanBytes(part.reclaimable) +
                                 " to be given back, " + humanBytes(part.given) + " given back";
        out << "<div class=\"cell\" title=\"" << escaped(text)
            << "\" style=\"left:" << percent(cells[i].left) << ";top:" << percent(cells[i].top)
            << ";width:" << percent(cells[i].width) << ";height:" << percent(cells[i].height) << ";"
            << shareStyle(part) << "\"><span>"
            << escaped(part.path.substr(part.path.rfind('/') + 1)) << " "
            << humanBytes(part.bytes()) << "</span>";
        if (depth < kMaxDepth && !part.parts.empty()) {
            out << "<div class=\"in\">";
            writeCells(out, part, proportion * cells[i].width / cells[i].height, depth + 1);
            out << "</div>";
        }
        out << "</div>\n";
    }
}

void writeMap(std::ostream& out, const DirectoryShare& root) {
    out << "<h2>Where the duplicates are</h2>\n<p class=\"legend\">Areas are directories below "
        << escaped(root.path) << ", by what their duplicates take or took:"
        << "<i style=\"--share:100%\"></i>still to be given back"
        << "<i style=\"--share:50%\"></i>half of it<i style=\"--share:0%\"></i>given back</p>\n"
        << "<div class=\"map\"><div>\n";
    // One that is not divided is one cell.
    writeCells(out, root.parts.empty() ? DirectoryShare{{}, "", {root}} : root, kProportion, 1);
    out << "</div></div>\n";
}

/// A number to be sorted by, as it is shown.
using Number = std::pair<int64_t, std::string>;
Number amount(int64_t bytes) {
    return {bytes, humanBytes(bytes)};
}
Number plain(int64_t number) {
    return {number, grouped(number)};
}

void beginTable(std::ostream& out, const char* title, const std::vector<const char*>& heads) {
    out << "<h2>" << title << "</h2>\n<div class=\"scroll\"><table><tr>";
    for (const char* head : heads) out << "<th>" << head << "</th>";
    out << "</tr>\n";
}
void writeRow(std::ostream& out, const std::string& name, const std::vector<Number>& numbers) {
    out << "<tr><td>" << escaped(name) << "</td>";
    for (const auto& [number, text] : numbers)
        out << "<td data-n=\"" << number << "\">" << text << "</td>";
    out << "</tr>\n";
}
constexpr char kTableEnd[] = "</table></div>\n";

void collect(const DirectoryShare& directory, std::vector<const DirectoryShare*>& all) {
    if (directory.parts.empty()) all.push_back(&directory);
    for (const DirectoryShare& part : directory.parts) collect(part, all);
}

void writeDirectories(std::ostream& out, const DirectoryShare& root) {
    std::vector<const DirectoryShare*> all;
    collect(root, all);
    std::stable_sort(all.begin(), all.end(),
                     [](const auto* a, const auto* b) { return a->bytes() > b->bytes(); });
    beginTable(out, "Directories", {"directory", "to give back", "given back"});
    for (size_t i = 0; i < std::min(all.size(), kMaxRows); ++i)
        writeRow(out, all[i]->path, {amount(all[i]->reclaimable), amount(all[i]->given)});
    out << kTableEnd;
}

void writeGroups(std::ostream& out, const std::vector<Group>& groups) {
    out << "<h2>Largest groups</h2>\n<input type=\"search\" placeholder=\"Filter by path\" "
           "aria-label=\"Filter by path\">\n";
    for (size_t i = 0; i < std::min(groups.size(), kMaxGroups); ++i) {
        const Group& group = groups[i];
        const std::string& first = group.members.front().path;
        out << "<details><summary><b>" << escaped(first.substr(first.rfind('/') + 1)) << "</b> "
            << counted(group.present(), "path") << ", " << counted(group.files, "file") << " of "
            << humanBytes(group.fileBytes);
        if (group.reclaimable > 0)
            out << ", <span class=\"free\">" << humanBytes(group.reclaimable) << "</span>";
        if (group.given > 0)
            out << ", <span class=\"given\">" << humanBytes(group.given) << " given back</span>";
        out << "</summary><ul>\n";
        for (size_t member = 0; member < std::min(group.members.size(), kMaxMembers); ++member) {
            out << "<li>" << escaped(group.members[member].path) << " <span class=\"note\">"
                << nameOf(group.members[member].state) << "</span></li>\n";
        }
        out << "</ul></details>\n";
    }
}

void writeSpaces(std::ostream& out, const std::map<std::string, SpaceShare>& spaces) {
    beginTable(out, "Spaces", {"space", "files", "to give back", "given back", "linked groups"});
    for (const auto& [spaceId, share] : spaces) {
        const std::string& other = share.countedIn;
        writeRow(out, other.empty() ? spaceId : spaceId + " (some are counted in " + other + ")",
                 {plain(share.space.files), amount(share.reclaimable), amount(share.given),
                  plain(share.space.compressed)});
    }
    out << kTableEnd;
}

std::string now() {
    char text[64];
    const time_t seconds = time(nullptr);
    struct tm local = {};
    localtime_r(&seconds, &local);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &local);
    return text;
}

/// The page's HTML: nothing from a network, readable on a narrow and on a dark screen, and without
/// its script, which filters the groups and sorts the tables.
std::string pageOf(const Report& report) {
    std::ostringstream out;
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<title>Duplicates</title>\n<style>"
        << kStyle << "</style></head><body>\n<h1>Files of identical content</h1>\n<p>As of "
        << now() << "</p>\n";
    writeFigures(out, report);
    if (report.root.bytes() == 0) {
        out << "<p>There are no duplicates in the spaces that have been scanned.</p>\n";
    } else {
        writeMap(out, report.root);
        writeDirectories(out, report.root);
        writeGroups(out, report.groups);
    }
    writeSpaces(out, report.spaces);
    out << "<script>" << kScript << "</script></body></html>\n";
    return out.str();
}

}  // namespace

int report(const std::string& htmlFile, const std::vector<std::string>& spaceIds) {
    requireSpaces(spaceIds);
    const std::vector<std::string> chosen = chosenSpaces(spaceIds);
    if (chosen.empty()) return nothingScanned();
    const std::string page = pageOf(reportOn(chosen));
    if (htmlFile == "-") {
        std::cout << page;
        return kDone;
    }
    std::ofstream file(htmlFile, std::ios::binary);
    if (!(file << page).flush()) throw Failure(htmlFile + " cannot be written: " + strerror(errno));
    std::cerr << "Written to " << htmlFile << " (" << humanBytes(static_cast<int64_t>(page.size()))
              << "); open it with any browser\n";
    return kDone;
}

}  // namespace ruxctl
