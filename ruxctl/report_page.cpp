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
constexpr size_t kMaxCells = 24;      // in a directory of the map
constexpr int kMaxDepth = 3;          // of directories in one another
constexpr size_t kMaxRows = 40;       // of the table of directories
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
.legend i { display: inline-block; width: .9rem; height: .9rem; border-radius: .2rem; margin: 0 .3rem 0 .8rem;
            vertical-align: -.1rem; background: color-mix(in srgb, #b04a12 var(--share), #2b6a48); }
.map { position: relative; width: 100%; aspect-ratio: 2; min-height: 20rem; border-radius: .5rem; overflow: hidden; }
.map div { position: absolute; inset: 0; overflow: hidden; container-type: size; }
.map .cell { border: 1px solid var(--paper); background: color-mix(in srgb, #b04a12 var(--share), #2b6a48); }
.map .in { top: 1.1rem; }
.map span { display: none; padding: 0 .3rem; font-size: .75rem; line-height: 1.1rem; color: #fff; white-space: nowrap;
            overflow: hidden; text-overflow: ellipsis; }
@container (min-width: 4.5rem) and (min-height: 1.1rem) { .map span { display: block; } }
@container (max-height: 2.2rem) { .map .in { display: none; } }
input { width: 100%; padding: .5rem .8rem; font: inherit; color: inherit; background: var(--card);
        border: 1px solid var(--line); border-radius: .5rem; }
details { background: var(--card); border: 1px solid var(--line); border-radius: .5rem;
          margin: .4rem 0; padding: .5rem .8rem; }
summary { cursor: pointer; } ul { margin: .4rem 0; padding-left: 1.1rem; }
li { overflow-wrap: anywhere; } table { border-collapse: collapse; width: 100%; }
.scroll { overflow-x: auto; } th, td { text-align: right; padding: .3rem .5rem;
border-bottom: 1px solid var(--line); white-space: nowrap; }
th { white-space: normal; cursor: pointer; }
th:first-child, td:first-child { text-align: left; white-space: normal; overflow-wrap: anywhere; min-width: 9rem; }
)css";

// Filters the groups by what is typed, and sorts a table by the column whose head is clicked.
constexpr char kScript[] = R"js(
const filter = document.querySelector('input');
if (filter) filter.oninput = () => {
  for (const group of document.querySelectorAll('details'))
    group.hidden = !group.textContent.toLowerCase().includes(filter.value.toLowerCase());
};
for (const head of document.querySelectorAll('th')) head.onclick = () => {
  const body = head.closest('table').tBodies[0], key = row => row.cells[head.cellIndex];
  const rows = [...body.rows].slice(1);
  rows.sort((a, b) => head.cellIndex ? key(b).dataset.n - key(a).dataset.n
                                     : key(a).textContent.localeCompare(key(b).textContent));
  body.append(...rows);
};
)js";

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
    for (const SpaceShare& share : report.spaces) files += share.space.files;
    const auto open = std::count_if(report.groups.begin(), report.groups.end(),
                                    [](const Group& group) { return group.reclaimable > 0; });
    out << "<div class=\"figures\">\n";
    figure(out, "free", humanBytes(report.root.reclaimable), "can be given back");
    figure(out, "given", humanBytes(report.root.given), "given back by links");
    figure(out, "", grouped(open), "groups of duplicates");
    figure(out, "", grouped(files), "files recorded");
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
    writeCells(out, root.parts.empty() ? DirectoryShare{"", 0, 0, {root}} : root, kProportion, 1);
    out << "</div></div>\n";
}

/// A table's cell with a number to be sorted by.
void writeNumber(std::ostream& out, int64_t number, const std::string& text) {
    out << "<td data-n=\"" << number << "\">" << text << "</td>";
}

void collect(const DirectoryShare& directory, std::vector<const DirectoryShare*>& all) {
    if (directory.parts.empty()) all.push_back(&directory);
    for (const DirectoryShare& part : directory.parts) collect(part, all);
}

void writeDirectories(std::ostream& out, const DirectoryShare& root) {
    std::vector<const DirectoryShare*> all;
    collect(root, all);
    std::stable_sort(all.begin(), all.end(),
                     [](const auto* a, const auto* b) { return a->bytes() > b->bytes(); });
    out << "<h2>Directories</h2>\n<div class=\"scroll\"><table><tr><th>directory</th><th>to "
           "give back</th><th>given back</th></tr>\n";
    for (size_t i = 0; i < std::min(all.size(), kMaxRows); ++i) {
        out << "<tr><td>" << escaped(all[i]->path) << "</td>";
        writeNumber(out, all[i]->reclaimable, humanBytes(all[i]->reclaimable));
        writeNumber(out, all[i]->given, humanBytes(all[i]->given));
        out << "</tr>\n";
    }
    out << "</table></div>\n";
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

void writeSpaces(std::ostream& out, const std::vector<SpaceShare>& spaces) {
    out << "<h2>Spaces</h2>\n<div class=\"scroll\"><table><tr><th>space</th><th>files</th>"
           "<th>to give back</th><th>given back</th><th>linked groups</th></tr>\n";
    for (const SpaceShare& share : spaces) {
        out << "<tr><td>" << escaped(share.space.id) << "</td>";
        writeNumber(out, share.space.files, grouped(share.space.files));
        writeNumber(out, share.reclaimable, humanBytes(share.reclaimable));
        writeNumber(out, share.given, humanBytes(share.given));
        writeNumber(out, share.space.compressed, grouped(share.space.compressed));
        out << "</tr>\n";
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

}  // namespace ruxctl
