// The GPS records that every format reader, receiver transfer and the replay
// engine share, the functions that create and finish them, and the file
// information texts that count them.
//
// Conventions of all the records: coordinates are doubles in decimal degrees
// (east and north positive) in the system of the DataSet's GeoReference;
// altitudes are metres, 0 standing for unknown; a point has a time when its
// packed date is at least 19000101.0; speeds are km/h and courses degrees;
// names and comments are owned wide strings, null when absent. A point list
// is a PairList whose pairs hold the point's ObjectType as key and its
// address as value.
#pragma once

#include <cstdint>
#include <type_traits>

#include "core/mobj.h"
#include "core/pair_list.h"
#include "shell/julian.h"

namespace norvanta {

struct Rgb {
    uint8_t red;
    uint8_t green;
    uint8_t blue;
};

struct LonLat {
    double longitude; // degrees
    double latitude;  // degrees
};

// display_mode of the waypoint family: what the label shows.
inline constexpr int32_t display_name = 0;
inline constexpr int32_t display_symbol_only = 1;
inline constexpr int32_t display_comment = 2;

// A point has a time from this packed date on.
inline constexpr double first_timed_date = 19000101.0;

// The waypoint symbols are the images wpt0.png to wpt35.png.
inline constexpr int32_t symbol_image_count = 36;

// Default colours of the record types.
inline constexpr Rgb waypoint_color{255, 128, 0};
inline constexpr Rgb track_color{255, 0, 0};
inline constexpr Rgb course_point_color{255, 0, 0};
inline constexpr Rgb route_color{0, 128, 0};
inline constexpr Rgb trail_color{255, 0, 255};
// A PointOfInterest takes the colour of the viewer's setting, black at start.
// Set it only while no file is being loaded.
extern Rgb point_of_interest_color;

// ---- records ----

// The waypoint family: a Waypoint, and the PointOfInterest and CoursePoint
// below, which share this layout and leave proximity and temperature unused.
struct Waypoint {
    static constexpr ObjectType object_type = ObjectType::Waypoint;

    ObjectId id;
    ObjectType type;
    double longitude;      // degrees
    double latitude;       // degrees
    double altitude;       // metres; 0 unknown
    wchar_t* name;         // owned; the key of the name indexes
    wchar_t* comment;      // owned; free text
    int32_t symbol;        // index of the symbol image, 0 to 35
    int32_t display_mode;  // display_name, display_symbol_only or display_comment
    Rgb color;             // default per type
    ObjectId symbol_image; // ImageObj of symbol, set by attach_symbols; 0 until then
    wchar_t* label;        // owned; the display text, made by rebuild_label
    double proximity;      // metres; Waypoint only
    double temperature;    // degrees Celsius; Waypoint only
    JulianTime time;       // PointOfInterest and CoursePoint: the time their file gave
};
static_assert(std::is_trivially_copyable_v<Waypoint> && std::is_standard_layout_v<Waypoint>);

struct PointOfInterest : Waypoint {
    static constexpr ObjectType object_type = ObjectType::PointOfInterest;
};
static_assert(std::is_standard_layout_v<PointOfInterest> &&
              sizeof(PointOfInterest) == sizeof(Waypoint));

struct CoursePoint : Waypoint {
    static constexpr ObjectType object_type = ObjectType::CoursePoint;
};
static_assert(std::is_standard_layout_v<CoursePoint> && sizeof(CoursePoint) == sizeof(Waypoint));

struct TrackPoint {
    static constexpr ObjectType object_type = ObjectType::TrackPoint;

    ObjectId id;
    ObjectType type;
    ObjectId track;     // the Track it belongs to
    double longitude;   // degrees
    double latitude;    // degrees
    double altitude;    // metres; 0 unknown
    JulianTime time;    // zero when absent
    double speed;       // km/h; 0 when absent
    double temperature; // degrees Celsius
};
static_assert(std::is_trivially_copyable_v<TrackPoint> && std::is_standard_layout_v<TrackPoint>);

struct TrackSegment {
    static constexpr ObjectType object_type = ObjectType::TrackSegment;

    ObjectId id;
    ObjectType type;
    ObjectId track;   // the Track it belongs to
    ObjectId next;    // the following segment; 0 at the end
    PairList* points; // owned list (not the points) of TrackPoints
};
static_assert(std::is_trivially_copyable_v<TrackSegment> &&
              std::is_standard_layout_v<TrackSegment>);

struct Track {
    static constexpr ObjectType object_type = ObjectType::Track;

    ObjectId id;
    ObjectType type;
    wchar_t* name;          // owned
    Rgb color;              // track_color by default
    LonLat center;          // mean of its points, set by finish_tracks with centers
    int32_t number;         // -1 by default
    int32_t width;          // line width, 2 by default
    ObjectId first_segment; // head of the chain of TrackSegments
};
static_assert(std::is_trivially_copyable_v<Track> && std::is_standard_layout_v<Track>);

// A route holds its points by address only: they are Waypoints that stand
// in the DataSet as well.
struct Route {
    static constexpr ObjectType object_type = ObjectType::Route;

    ObjectId id;
    ObjectType type;
    wchar_t* name;    // owned
    wchar_t* comment; // owned
    Rgb color;        // route_color by default
    LonLat center;    // mean of its points, set by finish_routes with centers
    PairList* points; // owned list (not the points) of Waypoints
    int32_t number;
};
static_assert(std::is_trivially_copyable_v<Route> && std::is_standard_layout_v<Route>);

// The fields of a Route over LinePoints, and two display values. A FreeLine
// is the same record with a label of its own, which a LineOfInterest leaves
// null.
struct LineOfInterest {
    static constexpr ObjectType object_type = ObjectType::LineOfInterest;

    ObjectId id;
    ObjectType type;
    wchar_t* name;    // owned
    wchar_t* comment; // owned
    Rgb color;
    LonLat center;    // mean of its points, set by finish_routes with centers
    PairList* points; // owned list (not the points) of LinePoints
    int32_t number;
    int32_t width;  // line width
    int32_t fill;   // 1 when the line closes a filled area
    wchar_t* label; // owned; FreeLine only
};
static_assert(std::is_trivially_copyable_v<LineOfInterest> &&
              std::is_standard_layout_v<LineOfInterest>);

struct FreeLine : LineOfInterest {
    static constexpr ObjectType object_type = ObjectType::FreeLine;
};
static_assert(std::is_standard_layout_v<FreeLine> && sizeof(FreeLine) == sizeof(LineOfInterest));

struct LinePoint {
    static constexpr ObjectType object_type = ObjectType::LinePoint;

    ObjectId id;
    ObjectType type;
    double longitude; // degrees
    double latitude;  // degrees
    double altitude;  // metres
};
static_assert(std::is_trivially_copyable_v<LinePoint> && std::is_standard_layout_v<LinePoint>);

// The NavSamples of one trip; a log with marks has several.
struct PositionList {
    static constexpr ObjectType object_type = ObjectType::PositionList;

    ObjectId id;
    ObjectType type;
    ObjectType element_type; // NavSample for a trip
    PairList* points;        // owned list (not the points)
};
static_assert(std::is_trivially_copyable_v<PositionList> &&
              std::is_standard_layout_v<PositionList>);

// One logged position with all its values, from a NavFix or a row of a log.
struct NavSample {
    static constexpr ObjectType object_type = ObjectType::NavSample;

    ObjectId id;
    ObjectType type;
    double longitude;        // degrees
    double latitude;         // degrees
    double altitude;         // metres above sea level
    JulianTime time;         // date and time of the position
    double ellipsoid_height; // metres
    double speed;            // km/h
    double course;           // degrees
    double hdop;             // dilution of precision
    int32_t satellites;      // in view
    int32_t satellites_used; // used in the fix
    uint32_t fix_acquired;   // 1 with a fix
    uint32_t differential;   // 1 with a differential fix
};
static_assert(std::is_trivially_copyable_v<NavSample> && std::is_standard_layout_v<NavSample>);

// The first and last mark of a position trail.
struct TrailMark {
    ObjectId id;
    ObjectType type;
    double longitude;    // degrees
    double latitude;     // degrees
    double altitude;     // metres
    const wchar_t* text; // static, not owned: trail_start_text or trail_end_text
};
struct TrailStartMark : TrailMark {
    static constexpr ObjectType object_type = ObjectType::TrailStartMark;
};
struct TrailEndMark : TrailMark {
    static constexpr ObjectType object_type = ObjectType::TrailEndMark;
};
static_assert(std::is_trivially_copyable_v<TrailStartMark> &&
              std::is_standard_layout_v<TrailStartMark> && std::is_standard_layout_v<TrailEndMark>);
inline constexpr const wchar_t* trail_start_text = L"  BEGIN";
inline constexpr const wchar_t* trail_end_text = L"  END";

// One replayable epoch: the NMEA sentences of one moment of a trip, sent as
// they stand, with the values the Dashboard shows. Coordinates are always
// WGS 84.
struct NavPoint {
    static constexpr ObjectType object_type = ObjectType::NavPoint;

    ObjectId id;
    ObjectType type;
    double time;         // days since the first time of the trip
    double distance;     // metres, cumulated from the start of the trip
    int32_t text_length; // bytes of text
    char* text;          // owned; the sentences of this epoch, CR LF ended
    double latitude;     // WGS 84 degrees
    double longitude;    // WGS 84 degrees
    double altitude;     // metres
    double speed;        // km/h
    double course;       // degrees
    int32_t satellites;  // count
    int32_t mark;        // 0 none, 1 a start of track belongs to this epoch, 2 a stop
};
static_assert(std::is_trivially_copyable_v<NavPoint> && std::is_standard_layout_v<NavPoint>);

// A raster image. Here images are only the waypoint symbols, kept as the PNG
// file was read: this program draws no map, so nothing decodes the pixels.
struct ImageObj {
    static constexpr ObjectType object_type = ObjectType::ImageObj;

    ObjectId id;
    ObjectType type;
    int32_t width;        // pixels
    int32_t height;       // pixels
    uint8_t bit_depth;    // bits per sample, as the PNG header says
    uint8_t color_type;   // PNG colour type
    int32_t encoded_size; // bytes of encoded
    uint8_t* encoded;     // owned; the whole PNG file
};
static_assert(std::is_trivially_copyable_v<ImageObj> && std::is_standard_layout_v<ImageObj>);

// ---- start-up ----

// Registers the GPS record types (and the image type that their symbols
// need), then loads the waypoint symbols from the system directory. An image
// that cannot be loaded is logged and leaves its symbol without an image.
void gps_model_init();
void gps_model_register_types();
// Loads wpt35.png down to wpt0.png from directory (ending in a separator),
// replacing the symbols loaded before.
void load_symbol_images(const char* directory);
// The ImageObj of a symbol, 0 when it has none or for a number out of range.
ObjectId symbol_image_of(int32_t symbol);

// Registers NavPoint with its destructor, which frees the text.
void nav_point_register_type();

// ---- creators ----
// Each adds what it makes to data_set when that is not 0 and returns the
// address, with the id in out_id. After a failure (gblerr set) nothing is
// made or added, the result is null and out_id 0.

// type must be Waypoint, PointOfInterest or CoursePoint, else gblerr 15.
Waypoint* new_point(ObjectType type, ObjectId data_set = 0, ObjectId* out_id = nullptr);
// A Waypoint with its label built.
Waypoint* new_waypoint(double longitude, double latitude, const wchar_t* name,
                       const wchar_t* comment, int32_t symbol, int32_t display_mode,
                       double altitude, ObjectId data_set, ObjectId* out_id = nullptr);
// The same with byte strings, converted in the user's locale.
Waypoint* new_waypoint(double longitude, double latitude, const char* name, const char* comment,
                       int32_t symbol, int32_t display_mode, double altitude, ObjectId data_set,
                       ObjectId* out_id = nullptr);
Track* new_track(ObjectId data_set, ObjectId* out_id = nullptr);
// Links the new segment behind previous, or with previous 0 makes it the
// track's first segment (over any first segment it had).
TrackSegment* new_segment(ObjectId previous, ObjectId track, ObjectId data_set,
                          ObjectId* out_id = nullptr);
// Appends the point to the segment's list; with a null segment the point
// belongs to no list.
TrackPoint* new_track_point(double longitude, double latitude, const JulianTime& time,
                            double altitude, TrackSegment* segment, ObjectId track,
                            ObjectId data_set, ObjectId* out_id = nullptr);
Route* new_route(ObjectId data_set, ObjectId* out_id = nullptr);
PositionList* new_position_list(ObjectType element_type, ObjectId data_set,
                                ObjectId* out_id = nullptr);
// type must be TrailStartMark or TrailEndMark, else gblerr 15.
TrailMark* new_trail_mark(ObjectType type, ObjectId data_set, ObjectId* out_id = nullptr);

// Adds the Waypoint id without duplicates. name_index is an OrderedSet of
// Waypoints on name (0 for none). When it holds a waypoint of the same name
// at exactly the same longitude and latitude, the new one is taken out of
// data_set and deleted and the result is the one that stood; otherwise the
// new one joins the index and the set, with its label rebuilt.
Waypoint* merge_waypoint(ObjectId name_index, ObjectId id, ObjectId data_set,
                         ObjectId* out_id = nullptr);

// The label is empty, or a blank followed by the name (display_name) or the
// comment (display_comment) when that has characters.
void rebuild_label(Waypoint& point);

// Appends a point record to a point list, its type as key.
void append_point(PairList*& points, void* point);

// ---- finishing passes ----
// Over data_set and its nested sets, run in this order by the readers that
// need them, at the end of a file.

// Routes without points are taken out of their set and deleted.
void drop_empty_routes(ObjectId data_set);
// Each point of the family type without a symbol image gets a copy of its
// symbol's image, one copy per symbol, made a member of data_set.
void attach_symbols(ObjectId data_set, ObjectType type);
// The map viewer's step that gives each set of points its label and icon
// layers; with no map view in this program it makes nothing. Readers still
// call it in its place, so that a view can be added here alone.
void index_waypoints(ObjectId data_set, ObjectType type);
// With centers, each Track's center becomes the mean of the points of its
// chain of segments. The polylines a view would draw are not made.
void finish_tracks(ObjectId data_set, bool with_centers);
// The same for routes (type Route) or lines (type LineOfInterest).
void finish_routes(ObjectId data_set, ObjectType type, bool with_centers);
// The viewer's trail polylines; with no map view it makes nothing.
void finish_trail(ObjectId data_set);

// ---- helpers ----

// Mean longitude and latitude of the points of a list; 0, 0 when empty.
LonLat mean_position(const PairList* list);
// When the last point of the line (a Route, LineOfInterest, FreeLine,
// TrackSegment or PositionList) differs from its first in longitude,
// latitude or altitude, the first is appended again.
void close_loop(ObjectType type, ObjectId id);
// At least 10 points, more than half of them timed.
inline constexpr int32_t timed_list_minimum_points = 10;
bool has_times(const PairList* list);
// The first Waypoint, else TrackPoint, else NavSample of the set's tree, in
// the order of ds_walk (nested sets before the root); 0 when there is none:
// such a set holds no GPS data to replay.
ObjectId first_position_object(ObjectId data_set, ObjectType* out_type = nullptr);

// ---- file information ----
// Each appends, for every kind it counts (over the whole tree) with a count
// above 0, a line feed, a title line and the count. language: 1 French,
// 2 English, 0 the language in use.

void describe_gps(ObjectId data_set, char*& text, int language = 0);
void describe_interest(ObjectId data_set, char*& text, int language = 0);
void describe_log(ObjectId data_set, char*& text, int language = 0);

} // namespace norvanta
