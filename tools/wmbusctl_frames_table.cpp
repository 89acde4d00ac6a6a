#include "wmbusctl_frames_table.h"

#include "wmbusctl_frames_text.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <string_view>
#include <vector>

namespace frames
{

namespace
{

constexpr size_t TYPE_COLUMN = 3;
constexpr size_t TYPE_WIDTH_MIN = 4;
constexpr size_t DATE_SIZE = 10; // of a time's text
constexpr int64_t DAY = 86400;

constexpr struct {
    const char *name;
    bool is_right; // aligned to the right
} COLUMNS[] = {{"Man", false},  {"Ident", false}, {"Ver", true},  {"Type", false},
               {"Modem", true}, {"Frames", true}, {"Seen", true}, {"Every", true},
               {"RSSI", true},  {"Low", true},    {"Mean", true}, {"High", true},
               {"Rep", true}};
constexpr size_t COLUMN_COUNT = std::size(COLUMNS);

using Cells = std::array<std::string, COLUMN_COUNT>;

int64_t seen_at(const Frame &frame)
{
    return frame.received != TIME_UNKNOWN ? frame.received : int64_t{frame.seconds};
}

uint64_t hash_of(const Frame &frame)
{
    const auto *bytes = reinterpret_cast<const char *>(frame.bytes);
    return std::hash<std::string_view>()({bytes, frame.size});
}

void make_room(Table &table)
{
    if (table.rows.size() == TABLE_SIZE_MAX) {
        table.of_meter.erase(table.rows.back().meter);
        table.rows.pop_back();
        ++table.forgotten;
    }
}

// The meter's row, which becomes the first.
TableRow &find_row(Table &table, const Meter &meter)
{
    const auto found = table.of_meter.find(meter);
    if (found == table.of_meter.end()) {
        make_room(table);
        table.rows.push_front({});
        table.rows.front().meter = meter;
        table.of_meter.emplace(meter, table.rows.begin());
    } else {
        table.rows.splice(table.rows.begin(), table.rows, found->second);
    }
    return table.rows.front();
}

void note_interval(TableRow &row, int64_t seen)
{
    const int64_t interval = seen - row.told;
    if (row.frames != 0 && interval >= 0 && interval <= int64_t{UINT32_MAX}) {
        const auto at = static_cast<size_t>(row.interval_count++ % INTERVALS);
        row.intervals[at] = static_cast<uint32_t>(interval);
    }
}

void note_rssi(TableRow &row, int rssi)
{
    row.rssi = rssi;
    row.rssi_sum += rssi;
    row.lowest = row.frames == 0 ? rssi : std::min(row.lowest, rssi);
    row.highest = row.frames == 0 ? rssi : std::max(row.highest, rssi);
}

std::string interval_text(const TableRow &row)
{
    const auto count = static_cast<size_t>(std::min<uint64_t>(row.interval_count, INTERVALS));
    if (count == 0) {
        return "-";
    }
    std::array<uint32_t, INTERVALS> sorted = row.intervals;
    std::sort(sorted.begin(), sorted.begin() + static_cast<ptrdiff_t>(count));
    const uint64_t middle = uint64_t{sorted[(count - 1) / 2]} + sorted[count / 2];
    return std::to_string((middle + 1) / 2) + 's';
}

std::string time_text(int64_t seconds)
{
    std::string text;
    append_time(text, seconds, ' ');
    return text;
}

// The hour on the day of the meter that was seen last, else the day.
std::string seen_text(int64_t seen, int64_t newest)
{
    const std::string text = time_text(seen);
    return seen / DAY == newest / DAY ? text.substr(DATE_SIZE + 1) : text.substr(0, DATE_SIZE);
}

std::string mean_text(const TableRow &row)
{
    const auto frames = static_cast<int64_t>(row.frames);
    return std::to_string((row.rssi_sum - frames / 2) / frames); // neither is above 0
}

Cells make_cells(const TableRow &row, int64_t newest)
{
    if (row.frames == 0) { // all left out, since the meter was forgotten
        return {manufacturer_text(row.meter),
                identification_text(row.meter),
                std::to_string(row.meter.version),
                device_type_name(row.meter),
                "-",
                "0",
                "-",
                "-",
                "-",
                "-",
                "-",
                "-",
                std::to_string(row.repeated)};
    }
    return {manufacturer_text(row.meter),
            identification_text(row.meter),
            std::to_string(row.meter.version),
            device_type_name(row.meter),
            hex_text(row.modem),
            std::to_string(row.frames),
            seen_text(row.seen, newest),
            interval_text(row),
            std::to_string(row.rssi),
            std::to_string(row.lowest),
            mean_text(row),
            std::to_string(row.highest),
            std::to_string(row.repeated)};
}

std::vector<const TableRow *> sorted_rows(const Table &table)
{
    std::vector<const TableRow *> rows;
    for (const TableRow &row : table.rows) {
        rows.push_back(&row);
    }
    std::stable_sort(rows.begin(), rows.end(),
                     [](const TableRow *a, const TableRow *b) { return a->seen > b->seen; });
    return rows;
}

using Widths = std::array<size_t, COLUMN_COUNT>;

void widen(Widths &widths, const Cells &cells)
{
    for (size_t i = 0; i < COLUMN_COUNT; ++i) {
        widths[i] = std::max(widths[i], cells[i].size());
    }
}

// The device type gets what the others leave.
void fit(Widths &widths, size_t columns)
{
    const size_t all = std::accumulate(widths.begin(), widths.end(), COLUMN_COUNT - 1);
    size_t &type = widths[TYPE_COLUMN];
    if (columns != 0 && all > columns) {
        type -= std::min(all - columns, type - TYPE_WIDTH_MIN);
    }
}

std::string line_of(const Cells &cells, const Widths &widths)
{
    std::string line;
    for (size_t i = 0; i < COLUMN_COUNT; ++i) {
        const std::string cell = cells[i].substr(0, widths[i]);
        const std::string blanks(widths[i] - cell.size(), ' ');
        line += i == 0 ? "" : " ";
        line += COLUMNS[i].is_right ? blanks + cell : cell + blanks;
    }
    return line;
}

void append_count(std::string &out, uint64_t count, const char *what)
{
    if (count != 0) {
        out += ", " + std::to_string(count) + ' ' + what;
    }
}

std::string title_of(const Table &table, int64_t newest)
{
    std::string title = "Meters: " + std::to_string(table.rows.size()) +
                        ", frames: " + std::to_string(table.frames);
    if (!table.rows.empty()) {
        title += ", last: " + time_text(newest) + " UTC";
    }
    append_count(title, table.nameless, "too short for a meter");
    append_count(title, table.forgotten, "meters forgotten");
    return title;
}

} // namespace

size_t MeterHash::operator()(const Meter &meter) const
{
    const uint64_t low =
        uint64_t{meter.manufacturer} << 16 | uint64_t{meter.version} << 8 | meter.device_type;
    return std::hash<uint64_t>()((low << 32 | meter.identification) * 0x9E3779B97F4A7C15 >> 16);
}

void add_frame(Table &table, const Frame &frame)
{
    const std::optional<Meter> meter = meter_of(frame);
    ++table.frames;
    if (!meter) {
        ++table.nameless;
        return;
    }
    TableRow &row = find_row(table, *meter);
    const int64_t seen = seen_at(frame);
    const uint64_t hash = hash_of(frame);
    const bool is_repeated = row.frames != 0 && row.told_hash == hash &&
                             seen >= row.told - REPEAT_SECONDS && seen <= row.told + REPEAT_SECONDS;
    if (is_repeated) {
        ++row.repeated;
    } else {
        note_interval(row, seen);
        row.told = seen;
        row.told_hash = hash;
    }
    note_rssi(row, frame.rssi);
    row.modem = frame.modem;
    row.seen = seen; // also when the clock has been ahead
    ++row.frames;
}

void add_repeated(Table &table, const Frame &frame)
{
    if (const std::optional<Meter> meter = meter_of(frame)) {
        ++find_row(table, *meter).repeated;
    }
}

std::string table_text(const Table &table, const Window &window)
{
    std::vector<const TableRow *> rows = sorted_rows(table);
    const int64_t newest = rows.empty() ? 0 : rows.front()->seen;
    std::string last_line;
    if (window.lines != 0 && rows.size() + 2 > window.lines) {
        const size_t shown = window.lines - std::min(window.lines, size_t{3});
        last_line = "... and " + std::to_string(rows.size() - shown) + " more";
        rows.resize(shown);
    }
    Cells heading;
    std::transform(std::begin(COLUMNS), std::end(COLUMNS), heading.begin(),
                   [](const auto &column) { return column.name; });
    Widths widths{};
    widen(widths, heading);
    for (const TableRow *row : rows) { // whose cells are made twice rather than kept
        widen(widths, make_cells(*row, newest));
    }
    fit(widths, window.columns);
    std::string text;
    auto append_line = [&, lines = size_t{0}](std::string_view line) mutable {
        if (window.lines != 0 && lines++ >= window.lines) {
            return;
        }
        text += line.substr(0, window.lines != 0 ? window.columns : line.size());
        text += '\n';
    };
    append_line(title_of(table, newest));
    append_line(line_of(heading, widths));
    for (const TableRow *row : rows) {
        append_line(line_of(make_cells(*row, newest), widths));
    }
    if (!last_line.empty()) {
        append_line(last_line);
    }
    return text;
}

} // namespace frames
