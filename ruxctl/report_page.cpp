#include "ruxctl/report_page.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <sstream>

#include "ruxctl/treemap.h"
#include "ruxctl/units.h"

namespace ruxctl {
namespace {

constexpr double kProportion = 2;     // of the map, width by height
constexpr size_t kMaxCells = 40;      // of the map
constexpr size_t kMaxBars = 20;       // directories with a bar
constexpr size_t kMaxGroups = 50;     // that are shown
constexpr size_t kMaxMembers = 1000;  // of each

constexpr char kStyle[] = R"css(
:root { color-scheme: light dark; --ink: #1c2733; --faint: #5b6b7b; --paper: #fbfbf9; --card: #ffffff;
        --line: #dde3e8; --free: #c2571a; --given: #2e7d4f; }
@media (prefers-color-scheme: dark) {
  :root { --ink: #e8ecef; --faint: #9aa8b5; --paper: #14181c; --card: #1d2329; --line: #323b44;
          --free: #e08a4f; --given: #5cb883; } }
* { box-sizing: border-box; }
body { margin: 0 auto; padding: 1rem; max-width: 64rem; background: var(--paper); color: var(--ink);
       font: 1rem/1.45 system-ui, sans-serif; }
h1 { font-size: 1.4rem; margin: .5rem 0; } h2 { font-size: 1.1rem; margin: 2rem 0 .6rem; }
p, .note { color: var(--faint); margin: .3rem 0; }
.figures { display: grid; grid-template-columns: repeat(auto-fit, minmax(9rem, 1fr)); gap: .7rem; }
.figures div { background: var(--card); border: 1px solid var(--line); border-radius: .5rem;
               padding: .7rem .9rem; color: var(--faint); }
.figures b { display: block; font-size: 1.5rem; color: var(--ink); }
.figures .free b, .free { color: var(--free); } .figures .given b, .given { color: var(--given); }
.map { position: relative; width: 100%; aspect-ratio: 2; min-height: 20rem; border-radius: .5rem;
       overflow: hidden; background: var(--line); }
.map div { position: absolute; overflow: hidden; padding: .2rem .35rem; font-size: .75rem;
           line-height: 1.2; color: #fff; border: 1px solid var(--paper); overflow-wrap: anywhere;
           background: color-mix(in srgb, #b04a12 var(--part), #2b6a48); }
.bars { display: grid; grid-template-columns: minmax(0, 1fr) auto; gap: .15rem .8rem; align-items: end; }
.bars span { overflow-wrap: anywhere; } .bars b { text-align: right; font-weight: 600; white-space: nowrap; }
.bars i { grid-column: 1 / 3; display: flex; height: .5rem; margin-bottom: .5rem; background: var(--line);
          border-radius: .25rem; overflow: hidden; }
.bars i u { background: var(--free); } .bars i s { background: var(--given); }
details { background: var(--card); border: 1px solid var(--line); border-radius: .5rem;
          margin: .4rem 0; padding: .5rem .8rem; }
summary { cursor: pointer; } ul { margin: .4rem 0; padding-left: 1.1rem; }
li { overflow-wrap: anywhere; } table { border-collapse: collapse; width: 100%; }
.scroll { overflow-x: auto; } th, td { text-align: right; padding: .3rem .5rem;
border-bottom: 1px solid var(--line); } th:first-child, td:first-child { text-align: left; }
)css";

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
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
    int64_t files = 0;
    for (const Space& space : report.spaces) files += space.files;
    const auto open = std::count_if(report.groups.begin(), report.groups.end(),
                                    [](const Group& group) { return group.reclaimable > 0; });
    out << "<div class=\"figures\">\n";
    figure(out, "free", humanBytes(report.reclaimable), "can be given back");
    figure(out, "given", humanBytes(report.given), "given back by links");
    figure(out, "", grouped(open), "groups of duplicates");
    figure(out, "", grouped(files), "files recorded");
    out << "</div>\n";
}

void writeMap(std::ostream& out, const std::vector<DirectoryShare>& directories) {
    std::vector<double> weights;
    for (const DirectoryShare& directory : directories) {
        if (weights.size() == kMaxCells) break;
        weights.push_back(static_cast<double>(directory.bytes()));
    }
    const std::vector<Cell> cells = treemap(weights, kProportion);
    out << "<h2>Where the duplicates are</h2>\n<p>Areas are directories, by what their duplicates "
           "take or took: <span class=\"free\">still to be given back</span>, <span "
           "class=\"given\">given back</span>.</p>\n<div class=\"map\">\n";
    for (size_t i = 0; i < cells.size(); ++i) {
        const DirectoryShare& directory = directories[i];
        const double part = static_cast<double>(directory.reclaimable) / weights[i];
        const std::string text = directory.path + ": " + humanBytes(directory.reclaimable) +
                                 " to be given back, " + humanBytes(directory.given) +
                                 " given back";
        out << "<div title=\"" << escaped(text) << "\" style=\"left:" << percent(cells[i].left)
            << ";top:" << percent(cells[i].top) << ";width:" << percent(cells[i].width)
            << ";height:" << percent(cells[i].height) << ";--part:" << percent(part) << "\">"
            << escaped(directory.path.substr(directory.path.rfind('/') + 1)) << "<br>"
            << humanBytes(directory.bytes()) << "</div>\n";
    }
    out << "</div>\n";
}

void writeBars(std::ostream& out, const std::vector<DirectoryShare>& directories) {
    out << "<h2>Directories</h2>\n<div class=\"bars\">\n";
    const auto most = static_cast<double>(directories.front().bytes());
    for (size_t i = 0; i < std::min(directories.size(), kMaxBars); ++i) {
        const DirectoryShare& directory = directories[i];
        out << "<span>" << escaped(directory.path) << "</span><b>" << humanBytes(directory.bytes())
            << "</b><i><u style=\"width:"
            << percent(static_cast<double>(directory.reclaimable) / most)
            << "\"></u><s style=\"width:" << percent(static_cast<double>(directory.given) / most)
            << "\"></s></i>\n";
    }
    out << "</div>\n";
}

void writeGroups(std::ostream& out, const std::vector<Group>& groups) {
    out << "<h2>Largest groups</h2>\n";
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

void writeSpaces(std::ostream& out, const std::vector<Space>& spaces) {
    out << "<h2>Spaces</h2>\n<div class=\"scroll\"><table><tr><th>space</th><th>files</th>"
           "<th>linked groups</th><th>database</th></tr>\n";
    for (const Space& space : spaces) {
        out << "<tr><td>" << escaped(space.id) << "</td><td>" << grouped(space.files) << "</td><td>"
            << grouped(space.compressed) << "</td><td>" << humanBytes(space.bytes)
            << "</td></tr>\n";
    }
    out << "</table></div>\n";
}

std::string now() {
    char text[64];
    const time_t seconds = time(nullptr);
    struct tm local = {};
    localtime_r(&seconds, &local);
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M", &local);
    return text;
}

}  // namespace

std::string pageOf(const Report& report) {
    std::ostringstream out;
    out << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<title>Duplicates</title>\n<style>"
        << kStyle << "</style></head><body>\n<h1>Files of identical content</h1>\n<p>As of "
        << now() << "</p>\n";
    writeFigures(out, report);
    if (report.directories.empty()) {
        out << "<p>There are no duplicates in the spaces that have been scanned.</p>\n";
    } else {
        writeMap(out, report.directories);
        writeBars(out, report.directories);
        writeGroups(out, report.groups);
    }
    writeSpaces(out, report.spaces);
    out << "</body></html>\n";
    return out.str();
}

}  // namespace ruxctl
