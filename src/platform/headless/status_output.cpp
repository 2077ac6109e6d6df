// The status output: the Dashboard's listener in the program with no window.
// Each field is taken as the Dashboard printed it and trimmed of blanks, so
// that a terminal, a script and the window all show the same digits.
#include "platform/headless/status_output.h"

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>

#include <unistd.h>

#include "shell/dashboard.h"

namespace norvanta {

namespace {

struct StatusName {
    StatusStyle style;
    const char* name;
};
constexpr std::array<StatusName, 3> status_names = {{
    {StatusStyle::none, "none"},
    {StatusStyle::line, "line"},
    {StatusStyle::tsv, "tsv"},
}};

// The fields of a point, in the order of a status line; the line form puts
// lead before the field and unit after it.
struct StatusField {
    DashboardField field;
    const char* lead;
    const char* unit;
};
constexpr std::array<StatusField, 9> status_fields = {{
    {DashboardField::mode, "", ""},
    {DashboardField::distance, " | ", " km"},
    {DashboardField::duration, " | ", ""},
    {DashboardField::longitude, " | ", ""},
    {DashboardField::latitude, "  ", ""},
    {DashboardField::altitude, " | ", " m"},
    {DashboardField::speed, " | ", " km/h"},
    {DashboardField::direction, " | ", " deg"},
    {DashboardField::satellites, " | ", " sats"},
}};

constexpr char tsv_separator = '\t';
constexpr char line_start[] = "\r";
constexpr char erase_to_line_end[] = "\x1b[K";
constexpr char no_fix_note[] = "(no fix)";

std::atomic<StatusStyle> status_style{StatusStyle::none};
std::atomic<std::FILE*> status_stream{nullptr};

// The listener runs on the UI thread, but the end of the line may be asked
// for from the way out; one lock keeps the text and the stream in step.
std::mutex status_mutex;
std::string last_point_line; // the line form of the last point shown
bool line_open = false;      // a line kept in place has no line end yet

std::FILE* stream() {
    std::FILE* chosen = status_stream.load();
    return chosen ? chosen : stdout;
}

std::string_view trimmed(const char* text) {
    std::string_view view(text);
    const std::size_t first = view.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return view.substr(first, view.find_last_not_of(' ') - first + 1);
}

std::string point_text(StatusStyle style) {
    const bool tsv = style == StatusStyle::tsv;
    std::string text;
    for (std::size_t i = 0; i < status_fields.size(); ++i) {
        const StatusField& row = status_fields[i];
        if (tsv && i > 0) text += tsv_separator;
        if (!tsv) text += row.lead;
        text += trimmed(dashboard_text(row.field));
        if (!tsv) text += row.unit;
    }
    return text;
}

void print_in_place(const std::string& text) {
    std::fprintf(stream(), "%s%s%s", line_start, text.c_str(), erase_to_line_end);
    line_open = true;
}

void follow_dashboard(bool point_shown) {
    const StatusStyle style = status_style.load();
    std::lock_guard lock(status_mutex);
    if (style == StatusStyle::tsv && point_shown) {
        std::fprintf(stream(), "%s\n", point_text(style).c_str());
    } else if (style == StatusStyle::line && point_shown) {
        last_point_line = point_text(style);
        print_in_place(last_point_line);
    } else if (style == StatusStyle::line) {
        print_in_place(last_point_line.empty() ? no_fix_note
                                               : last_point_line + "  " + no_fix_note);
    } else {
        return;
    }
    std::fflush(stream());
}

} // namespace

bool parse_status_style(const char* text, StatusStyle& out) {
    if (!text) return false;
    for (const StatusName& row : status_names) {
        if (std::strcmp(text, row.name) != 0) continue;
        out = row.style;
        return true;
    }
    return false;
}

StatusStyle status_style_default() {
    return isatty(STDOUT_FILENO) ? StatusStyle::line : StatusStyle::none;
}

void set_status_style(StatusStyle style) {
    status_style.store(style);
    set_dashboard_listener(style == StatusStyle::none ? nullptr : follow_dashboard);
}

void set_status_stream(std::FILE* chosen) {
    std::lock_guard lock(status_mutex);
    status_stream.store(chosen);
    line_open = false;
    last_point_line.clear();
}

void status_output_end_line() {
    std::lock_guard lock(status_mutex);
    if (!line_open) return;
    std::fputc('\n', stream());
    std::fflush(stream());
    line_open = false;
}

} // namespace norvanta
