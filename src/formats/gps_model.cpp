// The GPS records: their registration with the store, destructors, creators,
// the finishing passes that readers run at the end of a file, the waypoint
// symbol images, and the file information texts.
#include "formats/gps_model.h"

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "shell/config.h"
#include "shell/errors.h"

namespace norvanta {

Rgb point_of_interest_color{};

namespace {

// ---- destructors: a record frees its strings and lists, never the points
// of a list, which are members of the DataSet in their own right ----

void destroy_point(void* record) {
    auto* point = static_cast<Waypoint*>(record);
    free_mem(point->name);
    free_mem(point->comment);
    free_mem(point->label);
}

void destroy_track(void* record) {
    free_mem(static_cast<Track*>(record)->name);
}

template <class Line>
void destroy_line(void* record) {
    auto* line = static_cast<Line*>(record);
    free_mem(line->name);
    free_mem(line->comment);
    pair_list_free(line->points);
    if constexpr (requires { line->label; }) free_mem(line->label);
}

void destroy_segment(void* record) {
    pair_list_free(static_cast<TrackSegment*>(record)->points);
}

void destroy_position_list(void* record) {
    pair_list_free(static_cast<PositionList*>(record)->points);
}

void destroy_image(void* record) {
    free_mem(static_cast<ImageObj*>(record)->encoded);
}

// copy_obj has copied the source's pointer into the copy: the copy gets its
// own bytes, and the source's block must not be freed here.
void copy_image(const void* source, void* destination) {
    const auto* from = static_cast<const ImageObj*>(source);
    auto* to = static_cast<ImageObj*>(destination);
    to->encoded = nullptr;
    if (!from->encoded || from->encoded_size <= 0) return;
    alloc_mem(to->encoded, static_cast<std::size_t>(from->encoded_size));
    std::memcpy(to->encoded, from->encoded, static_cast<std::size_t>(from->encoded_size));
}

void destroy_nav_point(void* data) {
    free_mem(static_cast<NavPoint*>(data)->text);
}

struct RecordType {
    ObjectType type;
    std::size_t size_bytes;
    ObjectDestructor destructor;
    ObjectCopyHook copy_hook;
};

// Types 100 to 107 (103 belongs to the image module), 112, 114 to 118, and
// the two that no module of this program registers otherwise: the images of
// the symbols and the position lists. A course point owns its name and label
// like any point of its family, so it shares their destructor.
// clang-format off
constexpr RecordType record_types[] = {
    {ObjectType::ImageObj,        sizeof(ImageObj),       destroy_image,                  copy_image},
    {ObjectType::PositionList,    sizeof(PositionList),   destroy_position_list,          nullptr},
    {ObjectType::Waypoint,        sizeof(Waypoint),       destroy_point,                  nullptr},
    {ObjectType::TrackPoint,      sizeof(TrackPoint),     nullptr,                        nullptr},
    {ObjectType::Track,           sizeof(Track),          destroy_track,                  nullptr},
    {ObjectType::Route,           sizeof(Route),          destroy_line<Route>,            nullptr},
    {ObjectType::TrackSegment,    sizeof(TrackSegment),   destroy_segment,                nullptr},
    {ObjectType::PointOfInterest, sizeof(Waypoint),       destroy_point,                  nullptr},
    {ObjectType::LineOfInterest,  sizeof(LineOfInterest), destroy_line<LineOfInterest>,   nullptr},
    {ObjectType::NavSample,       sizeof(NavSample),      nullptr,                        nullptr},
    {ObjectType::LinePoint,       sizeof(LinePoint),      nullptr,                        nullptr},
    {ObjectType::FreeLine,        sizeof(LineOfInterest), destroy_line<LineOfInterest>,   nullptr},
    {ObjectType::CoursePoint,     sizeof(Waypoint),       destroy_point,                  nullptr},
    {ObjectType::TrailStartMark,  sizeof(TrailMark),      nullptr,                        nullptr},
    {ObjectType::TrailEndMark,    sizeof(TrailMark),      nullptr,                        nullptr},
};
// clang-format on
static_assert(std::size(record_types) == 15);

// ---- where the values stand in each kind of record ----

// Offsets of a point record's position and time; time 0 means the record
// has none (offset 0 is the id).
struct PointLayout {
    ObjectType type;
    std::size_t longitude;
    std::size_t latitude;
    std::size_t altitude;
    std::size_t time;
};

// clang-format off
constexpr PointLayout point_layouts[] = {
    {ObjectType::Waypoint,        offsetof(Waypoint, longitude),   offsetof(Waypoint, latitude),   offsetof(Waypoint, altitude),   offsetof(Waypoint, time)},
    {ObjectType::TrackPoint,      offsetof(TrackPoint, longitude), offsetof(TrackPoint, latitude), offsetof(TrackPoint, altitude), offsetof(TrackPoint, time)},
    {ObjectType::PointOfInterest, offsetof(Waypoint, longitude),   offsetof(Waypoint, latitude),   offsetof(Waypoint, altitude),   offsetof(Waypoint, time)},
    {ObjectType::NavSample,       offsetof(NavSample, longitude),  offsetof(NavSample, latitude),  offsetof(NavSample, altitude),  offsetof(NavSample, time)},
    {ObjectType::LinePoint,       offsetof(LinePoint, longitude),  offsetof(LinePoint, latitude),  offsetof(LinePoint, altitude),  0},
    {ObjectType::CoursePoint,     offsetof(Waypoint, longitude),   offsetof(Waypoint, latitude),   offsetof(Waypoint, altitude),   offsetof(Waypoint, time)},
    {ObjectType::TrailStartMark,  offsetof(TrailMark, longitude),  offsetof(TrailMark, latitude),  offsetof(TrailMark, altitude),  0},
    {ObjectType::TrailEndMark,    offsetof(TrailMark, longitude),  offsetof(TrailMark, latitude),  offsetof(TrailMark, altitude),  0},
};
// clang-format on
static_assert(std::size(point_layouts) == 8);

// The records that hold a point list, and where.
struct ListLayout {
    ObjectType type;
    std::size_t points;
};

constexpr ListLayout list_layouts[] = {
    {ObjectType::Route, offsetof(Route, points)},
    {ObjectType::LineOfInterest, offsetof(LineOfInterest, points)},
    {ObjectType::FreeLine, offsetof(LineOfInterest, points)},
    {ObjectType::TrackSegment, offsetof(TrackSegment, points)},
    {ObjectType::PositionList, offsetof(PositionList, points)},
};
static_assert(std::size(list_layouts) == 5);

template <class Row, std::size_t N>
const Row* row_of(const Row (&rows)[N], ObjectType type) {
    for (const Row& row : rows) {
        if (row.type == type) return &row;
    }
    return nullptr;
}

double double_at(const void* record, std::size_t offset) {
    double value = 0.0;
    std::memcpy(&value, static_cast<const char*>(record) + offset, sizeof value);
    return value;
}

// A point of a list as its pair gives it; null for a pair that is no point.
const PointLayout* point_of(const Pair& pair, const void*& record) {
    record = reinterpret_cast<const void*>(pair.value);
    const PointLayout* layout = row_of(point_layouts, static_cast<ObjectType>(pair.key));
    return record ? layout : nullptr;
}

struct PositionSum {
    double longitude = 0.0;
    double latitude = 0.0;
    int32_t count = 0;

    void add(const PairList* list) {
        for (int32_t i = 0; i < pair_list_count(list); ++i) {
            const void* record = nullptr;
            const PointLayout* layout = point_of(list->pairs[i], record);
            if (!layout) continue;
            longitude += double_at(record, layout->longitude);
            latitude += double_at(record, layout->latitude);
            ++count;
        }
    }
    LonLat mean() const {
        if (count == 0) return LonLat{0.0, 0.0};
        return LonLat{longitude / count, latitude / count};
    }
};

// ---- creation ----

bool in_point_family(ObjectType type) {
    return type == ObjectType::Waypoint || type == ObjectType::PointOfInterest ||
           type == ObjectType::CoursePoint;
}

// cre_obj, then membership of the set. A set that cannot take the record
// takes the record with it, so that a failed creator leaves nothing behind.
void* create_record(ObjectType type, ObjectId data_set, ObjectId* out_id) {
    ObjectId id = 0;
    void* record = cre_obj(type, &id, nullptr);
    if (record && data_set != 0) {
        ds_add(data_set, type, id);
        if (error_pending()) {
            ErrorHold hold;
            del_obj(type, id);
            record = nullptr;
            id = 0;
        }
    }
    if (out_id) *out_id = id;
    return record;
}

template <class T>
T* create(ObjectId data_set, ObjectId* out_id) {
    return static_cast<T*>(create_record(T::object_type, data_set, out_id));
}

void clear_out_id(ObjectId* out_id) {
    if (out_id) *out_id = 0;
}

// ---- symbol images ----

std::array<ObjectId, symbol_image_count> symbol_images{};

// A symbol file is a few hundred bytes; anything far larger is not one.
constexpr std::size_t symbol_file_limit_bytes = 1 << 20;
constexpr std::size_t read_chunk_bytes = 4096;

constexpr uint8_t png_signature[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
constexpr std::size_t png_signature_bytes = sizeof png_signature;
// Length, type and CRC around each chunk's data.
constexpr std::size_t png_chunk_overhead_bytes = 12;
constexpr uint32_t png_header_length = 13;
constexpr uint32_t png_largest_dimension = 0x7FFFFFFF;

uint32_t big_endian_32(const uint8_t* bytes) {
    return (uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) | (uint32_t{bytes[2]} << 8) |
           uint32_t{bytes[3]};
}

struct PngHeader {
    uint32_t width;
    uint32_t height;
    uint8_t bit_depth;
    uint8_t color_type;
};

// A PNG file whose chunks run whole from the header chunk to the end chunk.
bool read_png_header(std::span<const uint8_t> file, PngHeader& header) {
    if (file.size() < png_signature_bytes ||
        std::memcmp(file.data(), png_signature, png_signature_bytes) != 0) {
        return false;
    }
    bool first = true;
    for (std::size_t position = png_signature_bytes;
         file.size() - position >= png_chunk_overhead_bytes;) {
        const uint8_t* chunk = file.data() + position;
        const uint32_t length = big_endian_32(chunk);
        if (length > file.size() - position - png_chunk_overhead_bytes) return false;
        const uint8_t* data = chunk + 8;
        if (first) {
            if (std::memcmp(chunk + 4, "IHDR", 4) != 0 || length != png_header_length) {
                return false;
            }
            header = PngHeader{big_endian_32(data), big_endian_32(data + 4), data[8], data[9]};
            if (header.width == 0 || header.height == 0 || header.width > png_largest_dimension ||
                header.height > png_largest_dimension) {
                return false;
            }
            first = false;
        }
        if (std::memcmp(chunk + 4, "IEND", 4) == 0) return true;
        position += png_chunk_overhead_bytes + length;
    }
    return false;
}

// Reads the file into a new ImageObj: gblerr 2 when it cannot be read, 14
// when it is no whole PNG file.
void load_png_image(const char* path, ObjectId& out_image) {
    out_image = 0;
    std::FILE* file = std::fopen(path, "rb");
    if (!file) {
        set_gblerr(ErrorCode::file_access);
        return;
    }
    std::vector<uint8_t> bytes;
    uint8_t chunk[read_chunk_bytes];
    for (std::size_t got; (got = std::fread(chunk, 1, sizeof chunk, file)) > 0;) {
        bytes.insert(bytes.end(), chunk, chunk + got);
        if (bytes.size() > symbol_file_limit_bytes) break;
    }
    const bool read_failed = std::ferror(file) != 0;
    std::fclose(file);
    if (read_failed) {
        set_gblerr(ErrorCode::file_access);
        return;
    }
    PngHeader header{};
    if (bytes.size() > symbol_file_limit_bytes || !read_png_header(bytes, header)) {
        set_gblerr(ErrorCode::invalid_file);
        return;
    }
    auto* image = cre_obj<ImageObj>(&out_image);
    if (!image) return;
    image->width = static_cast<int32_t>(header.width);
    image->height = static_cast<int32_t>(header.height);
    image->bit_depth = header.bit_depth;
    image->color_type = header.color_type;
    image->encoded_size = static_cast<int32_t>(bytes.size());
    alloc_mem(image->encoded, bytes.size());
    std::memcpy(image->encoded, bytes.data(), bytes.size());
}

// A copy of a symbol's image, made a member of data_set; 0 when the symbol
// has no image.
ObjectId copy_symbol_image(int32_t symbol, ObjectId data_set) {
    const ObjectId original = symbol_image_of(symbol);
    if (original == 0) return 0;
    ObjectId copy = 0;
    if (!create_record(ObjectType::ImageObj, data_set, &copy)) return 0;
    copy_obj(ObjectType::ImageObj, original, copy);
    return copy;
}

// ---- walks ----

// Calls visit(address, holder, id) for every member of the type in the tree
// of data_set, in the walk's order; stops when visit returns false.
template <class Visit>
void walk_members(ObjectId data_set, ObjectType type, Visit&& visit) {
    PairList* stack = nullptr;
    ObjectId member = 0;
    ObjectId holder = 0;
    void* address = nullptr;
    while (ds_walk(data_set, type, &holder, member, &address, stack), member != 0) {
        if (address && !visit(address, holder, member)) break;
    }
    pair_list_free(stack);
}

template <class Line>
void center_lines(ObjectId data_set) {
    walk_members(data_set, Line::object_type, [](void* address, ObjectId, ObjectId) {
        auto* line = static_cast<Line*>(address);
        line->center = mean_position(line->points);
        return true;
    });
}

// ---- file information ----

struct Title {
    const char* french;
    const char* english;
};

constexpr Title waypoints_title{"Nombre de waypoints\n", "Number of waypoints\n"};
constexpr Title routes_title{"Nombre de routes\n", "Number of routes\n"};

// A line of counts: the types counted together, and whether the line comes
// only under the line before it that is not itself such a line.
struct CountRow {
    ObjectType counted;
    ObjectType also_counted; // None for a single type
    bool under_previous;
    Title title;
};

// clang-format off
constexpr CountRow gps_rows[] = {
    {ObjectType::Waypoint,        ObjectType::None,     false, waypoints_title},
    {ObjectType::Track,           ObjectType::None,     false, {"Nombre de tracklogs\n", "Number of tracklogs\n"}},
    {ObjectType::TrackSegment,    ObjectType::None,     true,  {"Nombre de tracksegments\n", "Number of tracksegments\n"}},
    {ObjectType::TrackPoint,      ObjectType::None,     true,  {"Nombre de trackpoints\n", "Number of trackpoints\n"}},
    {ObjectType::Route,           ObjectType::None,     false, routes_title},
};
constexpr CountRow interest_rows[] = {
    {ObjectType::PointOfInterest, ObjectType::None,     false, {"Nombre de Points d'Interet\n", "Number of Points Of Interest\n"}},
    {ObjectType::FreeLine,        ObjectType::LineOfInterest, false, {"Nombre de Lignes d'Interet\n", "Number of Lines Of Interest\n"}},
    {ObjectType::LinePoint,       ObjectType::None,     true,  {"Nombre de points de ligne\n", "Number of line points\n"}},
};
constexpr CountRow log_rows[] = {
    {ObjectType::NavSample,       ObjectType::None,     false, {"Nombre de positions GPS\n", "Number of GPS positions\n"}},
    {ObjectType::Waypoint,        ObjectType::None,     false, waypoints_title},
    {ObjectType::Route,           ObjectType::None,     true,  routes_title},
};
// clang-format on
static_assert(std::size(gps_rows) == 5 && std::size(interest_rows) == 3 &&
              std::size(log_rows) == 3);

void describe_counts(std::span<const CountRow> rows, ObjectId data_set, char*& text, int language) {
    if (language == 0) language = language_index();
    bool previous_shown = false;
    for (const CountRow& row : rows) {
        if (row.under_previous && !previous_shown) continue;
        int32_t count = ds_count_tree(data_set, row.counted);
        if (row.also_counted != ObjectType::None)
            count += ds_count_tree(data_set, row.also_counted);
        if (!row.under_previous) previous_shown = count > 0;
        if (count <= 0) continue;
        str_append("\n", text);
        str_append(language == 1 ? row.title.french : row.title.english, text);
        str_append_long(count, text);
    }
}

} // namespace

// ---- start-up ----

void gps_model_register_types() {
    for (const RecordType& row : record_types) {
        set_obj_type(row.type, row.size_bytes, nullptr);
        if (row.destructor) set_obj_destructor(row.type, row.destructor);
        if (row.copy_hook) set_obj_copy_hook(row.type, row.copy_hook);
    }
}

void load_symbol_images(const char* directory) {
    for (ObjectId& image : symbol_images) {
        if (image != 0) del_obj_adr(ObjectType::ImageObj, image);
    }
    const std::string base = directory ? directory : "";
    for (int32_t symbol = symbol_image_count - 1; symbol >= 0; --symbol) {
        const std::string path = base + "wpt" + std::to_string(symbol) + ".png";
        load_png_image(path.c_str(), symbol_images[static_cast<std::size_t>(symbol)]);
        if (!error_pending()) continue;
        // A symbol without its image is shown as nothing; the program goes on.
        set_gblerr(ErrorCode::none);
        log_stamp();
        log_text(localized("Impossible de charger l'image ", "Unable to load "));
        log_line(path.c_str());
    }
}

void gps_model_init() {
    gps_model_register_types();
    load_symbol_images(system_dir());
}

ObjectId symbol_image_of(int32_t symbol) {
    if (symbol < 0 || symbol >= symbol_image_count) return 0;
    return symbol_images[static_cast<std::size_t>(symbol)];
}

void nav_point_register_type() {
    set_obj_type<NavPoint>();
    set_obj_destructor(ObjectType::NavPoint, destroy_nav_point);
}

// ---- creators ----

Waypoint* new_point(ObjectType type, ObjectId data_set, ObjectId* out_id) {
    if (!in_point_family(type)) {
        clear_out_id(out_id);
        set_gblerr(ErrorCode::wrong_parameters);
        return nullptr;
    }
    auto* point = static_cast<Waypoint*>(create_record(type, data_set, out_id));
    if (!point) return nullptr;
    switch (type) {
    case ObjectType::PointOfInterest:
        point->color = point_of_interest_color;
        break;
    case ObjectType::CoursePoint:
        point->color = course_point_color;
        break;
    default:
        point->color = waypoint_color;
        break;
    }
    return point;
}

Waypoint* new_waypoint(double longitude, double latitude, const wchar_t* name,
                       const wchar_t* comment, int32_t symbol, int32_t display_mode,
                       double altitude, ObjectId data_set, ObjectId* out_id) {
    Waypoint* point = new_point(ObjectType::Waypoint, data_set, out_id);
    if (!point) return nullptr;
    point->longitude = longitude;
    point->latitude = latitude;
    if (name) wstr_copy(name, point->name);
    if (comment) wstr_copy(comment, point->comment);
    point->symbol = symbol;
    point->display_mode = display_mode;
    point->altitude = altitude;
    rebuild_label(*point);
    return point;
}

Waypoint* new_waypoint(double longitude, double latitude, const char* name, const char* comment,
                       int32_t symbol, int32_t display_mode, double altitude, ObjectId data_set,
                       ObjectId* out_id) {
    wchar_t* wide_name = nullptr;
    wchar_t* wide_comment = nullptr;
    if (name) wstr_from_str(name, wide_name);
    if (comment) wstr_from_str(comment, wide_comment);
    // A failed conversion has set gblerr, and then nothing is made.
    Waypoint* point = new_waypoint(longitude, latitude, wide_name, wide_comment, symbol,
                                   display_mode, altitude, data_set, out_id);
    free_mem(wide_name);
    free_mem(wide_comment);
    return point;
}

Track* new_track(ObjectId data_set, ObjectId* out_id) {
    auto* track = create<Track>(data_set, out_id);
    if (!track) return nullptr;
    track->color = track_color;
    track->width = 2;
    track->number = -1;
    return track;
}

TrackSegment* new_segment(ObjectId previous, ObjectId track, ObjectId data_set, ObjectId* out_id) {
    // Both look-ups come first, so that a stale id makes nothing.
    auto* owner = get_obj_adr<Track>(track);
    auto* before = get_obj_adr<TrackSegment>(previous);
    if (error_pending()) {
        clear_out_id(out_id);
        return nullptr;
    }
    ObjectId id = 0;
    auto* segment = create<TrackSegment>(data_set, &id);
    if (out_id) *out_id = id;
    if (!segment) return nullptr;
    segment->track = track;
    if (before) {
        before->next = id;
    } else if (owner) {
        owner->first_segment = id;
    }
    return segment;
}

TrackPoint* new_track_point(double longitude, double latitude, const JulianTime& time,
                            double altitude, TrackSegment* segment, ObjectId track,
                            ObjectId data_set, ObjectId* out_id) {
    auto* point = create<TrackPoint>(data_set, out_id);
    if (!point) return nullptr;
    point->track = track;
    point->longitude = longitude;
    point->latitude = latitude;
    point->time = time;
    point->altitude = altitude;
    if (segment) append_point(segment->points, point);
    return point;
}

Route* new_route(ObjectId data_set, ObjectId* out_id) {
    auto* route = create<Route>(data_set, out_id);
    if (route) route->color = route_color;
    return route;
}

PositionList* new_position_list(ObjectType element_type, ObjectId data_set, ObjectId* out_id) {
    auto* list = create<PositionList>(data_set, out_id);
    if (list) list->element_type = element_type;
    return list;
}

TrailMark* new_trail_mark(ObjectType type, ObjectId data_set, ObjectId* out_id) {
    if (type != ObjectType::TrailStartMark && type != ObjectType::TrailEndMark) {
        clear_out_id(out_id);
        set_gblerr(ErrorCode::wrong_parameters);
        return nullptr;
    }
    auto* mark = static_cast<TrailMark*>(create_record(type, data_set, out_id));
    if (mark) mark->text = type == ObjectType::TrailStartMark ? trail_start_text : trail_end_text;
    return mark;
}

Waypoint* merge_waypoint(ObjectId name_index, ObjectId id, ObjectId data_set, ObjectId* out_id) {
    clear_out_id(out_id);
    auto* point = get_obj_adr<Waypoint>(id);
    if (!point) return nullptr;
    if (name_index != 0) {
        ObjectId same = 0;
        void* address = nullptr;
        while (oset_next_equal(name_index, point->name, same, &address)) {
            auto* other = static_cast<Waypoint*>(address);
            if (same == id || !other) continue;
            if (other->longitude == point->longitude && other->latitude == point->latitude) {
                ds_remove(data_set, id);
                del_obj(ObjectType::Waypoint, id);
                if (out_id) *out_id = same;
                return other;
            }
        }
        oset_insert(name_index, id);
    }
    ds_add(data_set, ObjectType::Waypoint, id);
    rebuild_label(*point);
    if (error_pending()) return nullptr;
    if (out_id) *out_id = id;
    return point;
}

void rebuild_label(Waypoint& point) {
    const wchar_t* source = nullptr;
    if (point.display_mode == display_name) source = point.name;
    if (point.display_mode == display_comment) source = point.comment;
    wstr_copy(L"", point.label);
    if (source && *source) {
        wstr_copy(L" ", point.label);
        wstr_append(source, point.label);
    }
}

void append_point(PairList*& points, void* point) {
    const auto type = static_cast<const ObjectHeader*>(point)->type;
    pair_list_add(points, static_cast<intptr_t>(type), reinterpret_cast<intptr_t>(point));
}

// ---- finishing passes ----

void drop_empty_routes(ObjectId data_set) {
    struct Empty {
        ObjectId holder;
        ObjectId route;
    };
    std::vector<Empty> empty;
    walk_members(data_set, ObjectType::Route, [&](void* address, ObjectId holder, ObjectId id) {
        if (pair_list_count(static_cast<Route*>(address)->points) == 0) {
            empty.push_back({holder, id});
        }
        return true;
    });
    for (const Empty& route : empty) {
        ds_remove(route.holder, route.route);
        del_obj(ObjectType::Route, route.route);
    }
}

void attach_symbols(ObjectId data_set, ObjectType type) {
    assert(in_point_family(type) && "symbols belong to the waypoint family");
    if (!in_point_family(type)) return;
    std::array<ObjectId, symbol_image_count> copies{};
    walk_members(data_set, type, [&](void* address, ObjectId, ObjectId) {
        auto* point = static_cast<Waypoint*>(address);
        const ObjectId original = symbol_image_of(point->symbol);
        if (point->symbol_image != 0 || original == 0) return true;
        ObjectId& copy = copies[static_cast<std::size_t>(point->symbol)];
        if (copy == 0) copy = copy_symbol_image(point->symbol, data_set);
        point->symbol_image = copy;
        return !error_pending();
    });
}

void index_waypoints(ObjectId, ObjectType) {}

void finish_tracks(ObjectId data_set, bool with_centers) {
    if (!with_centers) return;
    walk_members(data_set, ObjectType::Track, [](void* address, ObjectId, ObjectId) {
        auto* track = static_cast<Track*>(address);
        PositionSum sum;
        for (ObjectId id = track->first_segment; id != 0;) {
            const auto* segment = get_obj_adr<TrackSegment>(id);
            if (!segment) return false;
            sum.add(segment->points);
            // Segments are linked behind older ones only; a link back would
            // be a loop that a reader made by hand, and ends the chain.
            if (segment->next <= id) break;
            id = segment->next;
        }
        track->center = sum.mean();
        return true;
    });
}

void finish_routes(ObjectId data_set, ObjectType type, bool with_centers) {
    assert((type == ObjectType::Route || type == ObjectType::LineOfInterest) &&
           "routes or lines of interest");
    if (!with_centers) return;
    if (type == ObjectType::Route) center_lines<Route>(data_set);
    if (type == ObjectType::LineOfInterest) center_lines<LineOfInterest>(data_set);
}

void finish_trail(ObjectId) {}

// ---- helpers ----

LonLat mean_position(const PairList* list) {
    PositionSum sum;
    sum.add(list);
    return sum.mean();
}

void close_loop(ObjectType type, ObjectId id) {
    const ListLayout* layout = row_of(list_layouts, type);
    assert(layout && "a record with a point list");
    void* record = layout ? get_obj_adr(type, id, nullptr) : nullptr;
    if (!record) return;
    auto*& points = *reinterpret_cast<PairList**>(static_cast<char*>(record) + layout->points);
    const int32_t count = pair_list_count(points);
    if (count == 0) return;
    const Pair first = points->pairs[0];
    const void* first_record = nullptr;
    const void* last_record = nullptr;
    const PointLayout* first_layout = point_of(first, first_record);
    const PointLayout* last_layout = point_of(points->pairs[count - 1], last_record);
    if (!first_layout || !last_layout) return;
    const bool same = double_at(first_record, first_layout->longitude) ==
                          double_at(last_record, last_layout->longitude) &&
                      double_at(first_record, first_layout->latitude) ==
                          double_at(last_record, last_layout->latitude) &&
                      double_at(first_record, first_layout->altitude) ==
                          double_at(last_record, last_layout->altitude);
    if (!same) pair_list_add(points, first.key, first.value);
}

bool has_times(const PairList* list) {
    const int32_t count = pair_list_count(list);
    if (count < timed_list_minimum_points) return false;
    int32_t timed = 0;
    for (int32_t i = 0; i < count; ++i) {
        const void* record = nullptr;
        const PointLayout* layout = point_of(list->pairs[i], record);
        if (!layout || layout->time == 0) continue;
        const double date = double_at(record, layout->time + offsetof(JulianTime, date));
        if (date >= first_timed_date) ++timed;
    }
    return timed * 2 > count;
}

ObjectId first_position_object(ObjectId data_set, ObjectType* out_type) {
    constexpr ObjectType by_preference[] = {ObjectType::Waypoint, ObjectType::TrackPoint,
                                            ObjectType::NavSample};
    for (ObjectType type : by_preference) {
        ObjectId found = 0;
        walk_members(data_set, type, [&](void*, ObjectId, ObjectId id) {
            found = id;
            return false;
        });
        if (found != 0) {
            if (out_type) *out_type = type;
            return found;
        }
    }
    if (out_type) *out_type = ObjectType::None;
    return 0;
}

// ---- file information ----

void describe_gps(ObjectId data_set, char*& text, int language) {
    describe_counts(gps_rows, data_set, text, language);
}

void describe_interest(ObjectId data_set, char*& text, int language) {
    describe_counts(interest_rows, data_set, text, language);
}

void describe_log(ObjectId data_set, char*& text, int language) {
    describe_counts(log_rows, data_set, text, language);
}

} // namespace norvanta
