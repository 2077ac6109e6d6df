// The GPX reader: its four name tables, the handlers that the markup reader
// calls for each known element and attribute, and the entry that runs a file
// through them.
//
// How the handlers see the file. The markup reader keeps a stack of the open
// elements' values; the handler of the element on top is called with a null
// text at its open tag (and at its close tag, with closing set), and with the
// element's text otherwise. Values from 1 to 27 are the names of our table;
// every other tag gets a value of its own, 28 or more, so that a handler can
// step over unknown wrappers such as <extensions>.
//
// Creators act at the open tag and make their object the context's
// current_object; the texts that follow fill whatever is current. Most text
// handlers look at their immediate parent only, so that <wpt><x><ele> leaves
// the waypoint's altitude alone; colours and the Garmin extensions look past
// unknown wrappers to the nearest known ancestor. A text that arrives under
// the right parent while the current object is of another type (a route's
// <name> after its first <rtept>) makes the file invalid: the order of
// elements matters to this reader.
#include "formats/gpx.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>

#include "core/strings.h"
#include "formats/gps_model.h"
#include "formats/xml.h"
#include "shell/errors.h"
#include "shell/julian.h"

namespace norvanta {

namespace {

// ---- Element names ----
//
// One row per element: its name (the identifier), its value, its handler.
// The value is the row's position: slot 0 belongs to unknown names.
// clang-format off
#define NORVANTA_GPX_ELEMENTS(X)                  \
    X(gpx,                  1, xml_no_op)         \
    X(wpt,                  2, on_wpt)            \
    X(rte,                  3, on_rte)            \
    X(rtept,                4, on_rtept)          \
    X(trk,                  5, on_trk)            \
    X(trkseg,               6, on_trkseg)         \
    X(trkpt,                7, on_trkpt)          \
    X(name,                 8, on_name)           \
    X(desc,                 9, xml_no_op)         \
    X(time,                10, on_time)           \
    X(bounds,              11, xml_no_op)         \
    X(ele,                 12, on_ele)            \
    X(speed,               13, on_speed)          \
    X(geoidheight,         14, xml_no_op)         \
    X(cmt,                 15, on_cmt)            \
    X(sym,                 16, on_sym)            \
    X(number,              17, on_number)         \
    X(color,               18, on_color)          \
    X(WaypointExtension,   19, xml_no_op)         \
    X(TrackPointExtension, 20, xml_no_op)         \
    X(RouteExtension,      21, xml_no_op)         \
    X(Proximity,           22, on_proximity)      \
    X(Temperature,         23, on_temperature)    \
    X(Depth,               24, on_depth)          \
    X(DisplayMode,         25, on_display_mode)   \
    X(magvar,              26, xml_no_op)         \
    X(DisplayColor,        27, on_display_color)
// clang-format on

enum class Element : int32_t {
    unknown = 0,
#define NORVANTA_GPX_ENUM(element, value, handler) element = value,
    NORVANTA_GPX_ELEMENTS(NORVANTA_GPX_ENUM)
#undef NORVANTA_GPX_ENUM
};

constexpr int32_t element_name_count = 27;
// Value 0 and the named elements; the first value a run gives an unknown name.
constexpr int32_t element_table_size = element_name_count + 1;

constexpr int32_t element_values[] = {
#define NORVANTA_GPX_VALUE(element, value, handler) value,
    NORVANTA_GPX_ELEMENTS(NORVANTA_GPX_VALUE)
#undef NORVANTA_GPX_VALUE
};
static_assert(std::size(element_values) == element_name_count);

constexpr bool values_follow_rows() {
    for (std::size_t i = 0; i < std::size(element_values); ++i) {
        if (element_values[i] != static_cast<int32_t>(i) + 1) return false;
    }
    return true;
}
static_assert(values_follow_rows(), "an element's value is its row's position");

constinit XmlName element_rows[] = {
#define NORVANTA_GPX_ROW(element, value, handler) xml_name(#element, value),
    NORVANTA_GPX_ELEMENTS(NORVANTA_GPX_ROW)
#undef NORVANTA_GPX_ROW
};

// ---- Attribute names ----

// Only lat and lon do anything; the other names are listed so that the
// common attributes of the format are known, and all act as no-ops.
constinit XmlName attribute_rows[] = {
    xml_name("xmlns", 0),  xml_name("version", 1), xml_name("creator", 0), xml_name("lat", 2),
    xml_name("lon", 3),    xml_name("minlat", 4),  xml_name("minlon", 5),  xml_name("maxlat", 6),
    xml_name("maxlon", 7), xml_name("author", 0),  xml_name("href", 0),    xml_name("id", 0),
    xml_name("domain", 0),
};
constexpr int32_t attribute_name_count = 13;
static_assert(std::size(attribute_rows) == attribute_name_count);
constexpr int32_t attribute_latitude = 2;
constexpr int32_t attribute_longitude = 3;
// Values 0 to 7.
constexpr int32_t attribute_table_size = 8;

// ---- Symbol names ----
//
// The value is the waypoint's symbol number. Only the first rows are entered
// in the set: a <sym> text from Information on looks up as 0, the default.
// Kept on purpose: that is how every file was read, and the symbol a
// waypoint shows depends on it.
constinit XmlName symbol_rows[] = {
    xml_name("Airport", 20),
    xml_name("Anchor", 6),
    xml_name("Ball Park", 19),
    xml_name("Bank", 24),
    xml_name("Bar", 31),
    xml_name("Beach", 18),
    xml_name("Boat Ramp", 5),
    xml_name("Boating", 5),
    xml_name("Bowling", 19),
    xml_name("Box", 0),
    xml_name("Bridge", 33),
    xml_name("Building", 1),
    xml_name("Campground", 11),
    xml_name("Camping", 11),
    xml_name("Car", 3),
    xml_name("Cemetery", 28),
    xml_name("Church", 28),
    xml_name("Circle with X", 12),
    xml_name("City (Medium)", 19),
    xml_name("City (Small)", 19),
    xml_name("Controlled Area", 16),
    xml_name("Crossing", 29),
    xml_name("Danger Area", 30),
    xml_name("Dangerous Area", 30),
    xml_name("Default", 0),
    xml_name("Drinking Water", 18),
    xml_name("Fast Food", 26),
    xml_name("First Aid", 14),
    xml_name("Fishing Area", 4),
    xml_name("Forest", 17),
    xml_name("Gas Station", 2),
    xml_name("Geocache", 32),
    xml_name("Geocache Found", 32),
    xml_name("Golf Course", 10),
    xml_name("Hotel", 1),
    xml_name("House", 1),
    // Not in the set: see above.
    xml_name("Information", 22),
    xml_name("Live Theater", 0),
    xml_name("Medical Facility", 14),
    xml_name("Movie Theater", 0),
    xml_name("Museum", 0),
    xml_name("Parachute Area", 0),
    xml_name("Park", 17),
    xml_name("Parking Area", 3),
    xml_name("Pharmacy", 14),
    xml_name("Picnic Area", 0),
    xml_name("Post Office", 0),
    xml_name("Residence", 25),
    xml_name("Restaurant", 26),
    xml_name("Rock", 27),
    xml_name("Scenic Area", 0),
    xml_name("School", 0),
    xml_name("Shipwreck", 7),
    xml_name("Shopping Center", 35),
    xml_name("Short Tower", 0),
    xml_name("Skiing Area", 0),
    xml_name("Skull", 9),
    xml_name("Soft Field", 0),
    xml_name("Stadium", 0),
    xml_name("Summit", 27),
    xml_name("Swimming Area", 18),
    xml_name("Tall Tower", 0),
    xml_name("Telephone", 34),
    xml_name("Text Label (No Dot)", 0),
    xml_name("Tourist Info", 22),
    xml_name("Trail Head", 0),
    xml_name("Waypoint", 0),
    xml_name("Zoo", 13),
    xml_name("Dot", 0),
};
static_assert(std::size(symbol_rows) == 69);
constexpr int32_t registered_symbol_count = 36;

// ---- Colour names and the palette ----

// The value is an index into the palette.
constinit XmlName color_rows[] = {
    xml_name("Black", 0),      xml_name("DarkRed", 13),     xml_name("DarkGreen", 11),
    xml_name("DarkYellow", 7), xml_name("DarkBlue", 12),    xml_name("DarkMagenta", 10),
    xml_name("DarkCyan", 16),  xml_name("LightGray", 17),   xml_name("DarkGray", 9),
    xml_name("Red", 2),        xml_name("Green", 4),        xml_name("Yellow", 14),
    xml_name("Blue", 3),       xml_name("Magenta", 5),      xml_name("Cyan", 15),
    xml_name("White", 1),      xml_name("Transparent", 17),
};
constexpr int32_t color_name_count = 17;
static_assert(std::size(color_rows) == color_name_count);

constexpr std::array<Rgb, 19> palette = {{
    {0, 0, 0},       // 0 black, also for any index past the end
    {255, 255, 255}, // 1
    {255, 0, 0},     // 2
    {0, 0, 255},     // 3
    {0, 255, 0},     // 4
    {255, 0, 255},   // 5
    {255, 192, 255}, // 6
    {255, 128, 0},   // 7
    {128, 64, 0},    // 8
    {128, 128, 128}, // 9
    {128, 0, 128},   // 10
    {0, 128, 0},     // 11
    {0, 0, 128},     // 12
    {128, 0, 48},    // 13
    {255, 255, 0},   // 14
    {0, 255, 255},   // 15
    {0, 192, 192},   // 16
    {192, 192, 192}, // 17
    {0, 0, 128},     // 18
}};

Rgb palette_color(int32_t index) {
    const bool inside = index >= 0 && index < static_cast<int32_t>(palette.size());
    return palette[inside ? static_cast<std::size_t>(index) : 0];
}

// ---- The sets, built once ----

std::mutex init_mutex;
std::atomic<bool> sets_ready{false};
ObjectId element_set = 0;
ObjectId attribute_set = 0;
ObjectId symbol_set = 0;
ObjectId color_set = 0;

// ---- What the handlers share ----

// The format's block of a run.
struct GpxState {
    Route* current_route;          // the Route that <rtept>s join
    TrackSegment* current_segment; // the last TrackSegment made
};

GpxState& state_of(XmlContext& context) {
    return *static_cast<GpxState*>(context.format_data);
}

// A comment keeps this many bytes of its text.
constexpr std::size_t comment_limit_bytes = 63;
// A <color> is six hexadecimal digits, red, green, blue.
constexpr std::size_t color_digits = 6;

constexpr bool is_known(int32_t value) {
    return value > 0 && value < element_table_size;
}

Element element_at(const XmlContext& context, int32_t index) {
    return static_cast<Element>(context.stack[index]);
}

// The element just under the top; only meaningful with depth 2 or more.
Element parent_of(const XmlContext& context) {
    return element_at(context, context.depth - 2);
}

// The slot of the nearest known element above the slot index, walking past
// unknown wrappers; the outermost slot ends the walk, known or not. -1 for
// the outermost slot itself, which has nothing above it.
int32_t known_ancestor(const XmlContext& context, int32_t index) {
    if (index <= 0) return -1;
    int32_t slot = index - 1;
    while (slot > 0 && !is_known(context.stack[slot]))
        --slot;
    return slot;
}

// The Garmin extensions stand in a known wrapper inside the point they
// describe: <wpt>...<WaypointExtension>...<Depth>, whatever unknown wrappers
// (<extensions>) come between.
bool in_extension(const XmlContext& context, Element wrapper, Element owner) {
    constexpr int32_t extension_min_depth = 3;
    if (context.depth < extension_min_depth) return false;
    const int32_t wrapper_slot = known_ancestor(context, context.depth - 1);
    if (wrapper_slot < 0 || element_at(context, wrapper_slot) != wrapper) return false;
    const int32_t owner_slot = known_ancestor(context, wrapper_slot);
    return owner_slot >= 0 && element_at(context, owner_slot) == owner;
}

// A creator's moment: the open tag, under the one parent it accepts.
bool opens_under(const XmlContext& context, const char* text, Element parent) {
    return !text && !context.closing && !error_pending() && context.depth >= 2 &&
           parent_of(context) == parent;
}

// A text handler's moment: a text, with a parent to look at.
bool has_text(const XmlContext& context, const char* text) {
    return text && context.depth >= 2;
}

void make_current(XmlContext& context, void* object, ObjectType type) {
    if (!object) return;
    context.current_object = object;
    context.current_type = type;
}

// The current object when it is a T, else null.
template <class T>
T* current_as(XmlContext& context) {
    if (context.current_type != T::object_type) return nullptr;
    return static_cast<T*>(context.current_object);
}

// The current object, which must be a T: anything else makes the file
// invalid. Null for a point that goes nowhere (see drop_point).
template <class T>
T* expect_current(XmlContext& context) {
    if (context.current_type != T::object_type) set_gblerr(ErrorCode::invalid_file);
    return current_as<T>(context);
}

// A route point with no route or a track point with no segment has no line
// to join. It becomes current with no object behind it, so that its own
// texts are taken and dropped, while a text that needs another type still
// finds the file invalid.
void drop_point(XmlContext& context, ObjectType type) {
    context.current_object = nullptr;
    context.current_type = type;
}

// Numbers read as atof and atoi read them: what does not parse is 0.
double number_of(const char* text) {
    return std::strtod(text, nullptr);
}

int32_t integer_of(const char* text) {
    const long value = std::strtol(text, nullptr, 10);
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(value);
}

// Coordinates and altitudes land in the current point, whichever of the two
// kinds it is. Any other current object has no such field and keeps its own.
double* point_field(XmlContext& context, double Waypoint::*waypoint_field,
                    double TrackPoint::*track_point_field) {
    if (auto* waypoint = current_as<Waypoint>(context)) return &(waypoint->*waypoint_field);
    if (auto* point = current_as<TrackPoint>(context)) return &(point->*track_point_field);
    return nullptr;
}

// ---- Creators ----

// <wpt lat="46.1" lon="-73">, directly in <gpx>.
void on_wpt(XmlContext& context, char* text) {
    if (!opens_under(context, text, Element::gpx)) return;
    make_current(context, new_point(ObjectType::Waypoint, context.owner), ObjectType::Waypoint);
}

// <rte>, directly in <gpx>: the route that the following <rtept>s join.
void on_rte(XmlContext& context, char* text) {
    if (!opens_under(context, text, Element::gpx)) return;
    Route* route = new_route(context.owner);
    if (!route) return;
    make_current(context, route, ObjectType::Route);
    state_of(context).current_route = route;
}

// <rtept lat="36.3" lon="-117.4">, in <rte>: a Waypoint of the DataSet that
// the route holds as well. The route is the last one made, which is not
// always the <rte> around it: one out of place makes no route.
void on_rtept(XmlContext& context, char* text) {
    if (!opens_under(context, text, Element::rte)) return;
    Route* route = state_of(context).current_route;
    if (!route) return drop_point(context, ObjectType::Waypoint);
    Waypoint* point = new_point(ObjectType::Waypoint, context.owner);
    if (!point) return;
    make_current(context, point, ObjectType::Waypoint);
    append_point(route->points, point);
}

// <trk>, directly in <gpx>.
void on_trk(XmlContext& context, char* text) {
    if (!opens_under(context, text, Element::gpx)) return;
    make_current(context, new_track(context.owner), ObjectType::Track);
}

// <trkseg>, in <trk>. Right after the <trk> it is the track's first
// segment; otherwise it follows the last segment made, in that segment's
// track.
void on_trkseg(XmlContext& context, char* text) {
    if (!opens_under(context, text, Element::trk)) return;
    GpxState& state = state_of(context);
    ObjectId previous = 0;
    ObjectId track = 0;
    if (auto* current = current_as<Track>(context)) {
        track = current->id;
    } else if (state.current_segment) {
        previous = state.current_segment->id;
        track = state.current_segment->track;
    }
    TrackSegment* segment = new_segment(previous, track, context.owner);
    if (!segment) return;
    make_current(context, segment, ObjectType::TrackSegment);
    state.current_segment = segment;
}

// <trkpt lat="30.06" lon="-91.61">, in <trkseg>: a point of the last
// segment made, which is not always the <trkseg> around it (one out of
// place makes no segment). Before any segment it is dropped.
void on_trkpt(XmlContext& context, char* text) {
    if (!opens_under(context, text, Element::trkseg)) return;
    TrackSegment* segment = state_of(context).current_segment;
    if (!segment) return drop_point(context, ObjectType::TrackPoint);
    TrackPoint* point =
        new_track_point(0.0, 0.0, JulianTime{}, 0.0, segment, segment->track, context.owner);
    make_current(context, point, ObjectType::TrackPoint);
}

// ---- Attributes ----

// lat="46.1333" or lon="-73" on a point's tag, in degrees, with no range
// check. The pair means nothing on other tags (<bounds> has its own names).
template <int32_t Attribute>
void on_coordinate(XmlContext& context, int32_t element_value, char* text) {
    if (!text || !context.current_object) return;
    const auto element = static_cast<Element>(element_value);
    if (element != Element::wpt && element != Element::rtept && element != Element::trkpt) return;
    double* field = Attribute == attribute_latitude
                        ? point_field(context, &Waypoint::latitude, &TrackPoint::latitude)
                        : point_field(context, &Waypoint::longitude, &TrackPoint::longitude);
    if (field) *field = number_of(text);
}

constexpr std::array<XmlAttributeHandler, attribute_table_size> attribute_handlers = [] {
    std::array<XmlAttributeHandler, attribute_table_size> handlers{};
    handlers[attribute_latitude] = on_coordinate<attribute_latitude>;
    handlers[attribute_longitude] = on_coordinate<attribute_longitude>;
    return handlers;
}();

// ---- Texts of the immediate parent ----

// <name>Hwy 119</name> of a waypoint, route point, route or track. The label
// of a named waypoint shows its name.
void on_name(XmlContext& context, char* text) {
    if (!has_text(context, text)) return;
    switch (parent_of(context)) {
    case Element::wpt:
    case Element::rtept:
        if (auto* point = expect_current<Waypoint>(context)) {
            wstr_from_utf8(text, point->name);
            point->display_mode = display_name;
            rebuild_label(*point);
        }
        return;
    case Element::rte:
        if (auto* route = expect_current<Route>(context)) wstr_from_utf8(text, route->name);
        return;
    case Element::trk:
        if (auto* track = expect_current<Track>(context)) wstr_from_utf8(text, track->name);
        return;
    default:
        return;
    }
}

// <time>2002-05-25T17:06:21.250Z</time> of a track point; the times of
// waypoints and of the file's metadata are dropped.
void on_time(XmlContext& context, char* text) {
    if (!has_text(context, text) || parent_of(context) != Element::trkpt) return;
    if (auto* point = expect_current<TrackPoint>(context)) parse_iso_julian(text, point->time);
}

// <ele>-55.600</ele>, metres, of a waypoint, route point or track point.
void on_ele(XmlContext& context, char* text) {
    if (!has_text(context, text)) return;
    const Element parent = parent_of(context);
    if (parent != Element::wpt && parent != Element::rtept && parent != Element::trkpt) return;
    if (double* altitude = point_field(context, &Waypoint::altitude, &TrackPoint::altitude))
        *altitude = number_of(text);
}

// <speed>2.5</speed> of a track point. GPX speaks metres per second and the
// record holds km/h, yet the number is stored as written: kept on purpose,
// the speed that the replay of a GPX track sends has always been this one.
void on_speed(XmlContext& context, char* text) {
    if (!has_text(context, text) || parent_of(context) != Element::trkpt) return;
    if (auto* point = expect_current<TrackPoint>(context)) point->speed = number_of(text);
}

// <cmt>go 52.3 mi</cmt> of a waypoint or a route, cut to 63 bytes (which
// may split a UTF-8 character; the conversion copes). A waypoint that showed
// its symbol only shows the comment from then on.
void on_cmt(XmlContext& context, char* text) {
    if (!has_text(context, text)) return;
    if (std::strlen(text) > comment_limit_bytes) text[comment_limit_bytes] = '\0';
    switch (parent_of(context)) {
    case Element::wpt:
        if (auto* point = expect_current<Waypoint>(context)) {
            wstr_from_utf8(text, point->comment);
            if (point->display_mode == display_symbol_only) {
                point->display_mode = display_comment;
                rebuild_label(*point);
            }
        }
        return;
    case Element::rte:
        if (auto* route = expect_current<Route>(context)) wstr_from_utf8(text, route->comment);
        return;
    default:
        return;
    }
}

// <sym>Geocache</sym> of a waypoint or route point; the name is compared
// exactly, case and all, and an unknown one gives symbol 0.
void on_sym(XmlContext& context, char* text) {
    if (!has_text(context, text)) return;
    const Element parent = parent_of(context);
    if (parent != Element::wpt && parent != Element::rtept) return;
    if (auto* point = expect_current<Waypoint>(context))
        point->symbol = name_lookup(symbol_set, text, 0);
}

// <number>3</number> of a track or a route.
void on_number(XmlContext& context, char* text) {
    if (!has_text(context, text)) return;
    switch (parent_of(context)) {
    case Element::trk:
        if (auto* track = expect_current<Track>(context)) track->number = integer_of(text);
        return;
    case Element::rte:
        if (auto* route = expect_current<Route>(context)) route->number = integer_of(text);
        return;
    default:
        return;
    }
}

// ---- Texts of the nearest known ancestor ----

// The colour that a <color> or <DisplayColor> sets: that of the waypoint,
// route or track it stands in, past any unknown wrapper, when that object is
// the current one. Anywhere else the text is ignored, without complaint.
Rgb* color_target(XmlContext& context) {
    const int32_t slot = known_ancestor(context, context.depth - 1);
    if (slot < 0) return nullptr;
    switch (element_at(context, slot)) {
    case Element::wpt:
        if (auto* point = current_as<Waypoint>(context)) return &point->color;
        return nullptr;
    case Element::rte:
        if (auto* route = current_as<Route>(context)) return &route->color;
        return nullptr;
    case Element::trk:
        if (auto* track = current_as<Track>(context)) return &track->color;
        return nullptr;
    default:
        return nullptr;
    }
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Six hexadecimal digits, optionally behind a '#' as in HTML; false, with
// out untouched, when the text is anything else.
bool read_hex_color(const char* text, Rgb& out) {
    if (*text == '#') ++text;
    uint8_t bytes[3] = {};
    for (std::size_t i = 0; i < color_digits; ++i) {
        const int digit = hex_digit(text[i]);
        if (digit < 0) return false;
        bytes[i / 2] = static_cast<uint8_t>(bytes[i / 2] * 16 + digit);
    }
    out = Rgb{bytes[0], bytes[1], bytes[2]};
    return true;
}

// <color>FF8000</color>, red, green and blue in hexadecimal. A shorter text
// is ignored, and so is one that is not hexadecimal: the colour stays.
void on_color(XmlContext& context, char* text) {
    if (!has_text(context, text) || std::strlen(text) < color_digits) return;
    Rgb* color = color_target(context);
    Rgb value{};
    if (color && read_hex_color(text, value)) *color = value;
}

// <gpxx:DisplayColor>DarkGray</gpxx:DisplayColor>, a name of the palette;
// an unknown name is black. Inside a <TrackExtension>, which we do not list,
// it reaches the track; inside the <WaypointExtension> or <RouteExtension>
// that we do list, its known ancestor is that wrapper and it is ignored. Kept
// on purpose: waypoints and routes of such files keep their own colours.
void on_display_color(XmlContext& context, char* text) {
    if (!has_text(context, text)) return;
    if (Rgb* color = color_target(context)) *color = palette_color(name_lookup(color_set, text, 0));
}

// <gpxx:Proximity>50</gpxx:Proximity>, metres, in a waypoint's extension.
void on_proximity(XmlContext& context, char* text) {
    if (!text || !in_extension(context, Element::WaypointExtension, Element::wpt)) return;
    if (auto* point = current_as<Waypoint>(context)) point->proximity = number_of(text);
}

// <gpxx:Temperature>12.5</gpxx:Temperature>, degrees Celsius, of a waypoint
// or a track point.
void on_temperature(XmlContext& context, char* text) {
    if (!text) return;
    if (in_extension(context, Element::WaypointExtension, Element::wpt)) {
        if (auto* point = current_as<Waypoint>(context)) point->temperature = number_of(text);
    } else if (in_extension(context, Element::TrackPointExtension, Element::trkpt)) {
        if (auto* point = current_as<TrackPoint>(context)) point->temperature = number_of(text);
    }
}

// <gpxx:Depth>3</gpxx:Depth>, metres below the surface: the altitude is
// lowered by it. After <ele> that gives height minus depth; an <ele> after
// it overwrites it. The extension comes after <ele> in GPX, so the first is
// what files give.
void on_depth(XmlContext& context, char* text) {
    if (!text) return;
    double* altitude = nullptr;
    if (in_extension(context, Element::WaypointExtension, Element::wpt)) {
        if (auto* point = current_as<Waypoint>(context)) altitude = &point->altitude;
    } else if (in_extension(context, Element::TrackPointExtension, Element::trkpt)) {
        if (auto* point = current_as<TrackPoint>(context)) altitude = &point->altitude;
    }
    if (altitude) *altitude -= number_of(text);
}

// <gpxx:DisplayMode>SymbolAndName</gpxx:DisplayMode> of a waypoint: what its
// label shows. Any text but the two below shows the name.
void on_display_mode(XmlContext& context, char* text) {
    if (!text || !in_extension(context, Element::WaypointExtension, Element::wpt)) return;
    auto* point = current_as<Waypoint>(context);
    if (!point) return;
    if (std::strcmp(text, "SymbolOnly") == 0) {
        point->display_mode = display_symbol_only;
    } else if (std::strcmp(text, "SymbolAndDescription") == 0) {
        point->display_mode = display_comment;
    } else {
        point->display_mode = display_name;
    }
    rebuild_label(*point);
}

constexpr std::array<XmlElementHandler, element_table_size> element_handlers = {
    nullptr,
#define NORVANTA_GPX_HANDLER(element, value, handler) handler,
    NORVANTA_GPX_ELEMENTS(NORVANTA_GPX_HANDLER)
#undef NORVANTA_GPX_HANDLER
};

// ---- The finishing passes ----

void finish_gpx(ObjectId data_set) {
    drop_empty_routes(data_set);
    attach_symbols(data_set, ObjectType::Waypoint);
    index_waypoints(data_set, ObjectType::Waypoint);
    finish_tracks(data_set, true);
    finish_routes(data_set, ObjectType::Route, true);
}

} // namespace

void gpx_init() {
    if (sets_ready.load(std::memory_order_acquire)) return;
    std::lock_guard lock(init_mutex);
    if (sets_ready.load(std::memory_order_relaxed) || error_pending()) return;
    xml_init();
    name_table_install(element_name_count, element_rows, element_set);
    name_table_install(attribute_name_count, attribute_rows, attribute_set);
    name_table_install(registered_symbol_count, symbol_rows, symbol_set);
    name_table_install(color_name_count, color_rows, color_set);
    if (!error_pending()) sets_ready.store(true, std::memory_order_release);
}

void read_gpx(ObjectId file, ObjectId data_set) {
    gpx_init();
    if (error_pending()) return;
    XmlFormat format;
    format.element_set = element_set;
    format.attribute_set = attribute_set;
    format.handler_count = element_table_size;
    format.element_handlers = element_handlers.data();
    format.attribute_handlers = attribute_handlers.data();
    format.format_data_bytes = sizeof(GpxState);
    format.finish = finish_gpx;
    xml_read_data_set(file, data_set, format);
}

} // namespace norvanta
