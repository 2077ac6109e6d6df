// The geodetic dictionary: the reading of the ten table files, the indexes
// over their records and the look-ups that the readers of foreign files and
// the transforms ask of it, the shortest path of shifts between two datums
// among them.
#include "geodesy/tables.h"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "geodesy/transforms.h"
#include "shell/config.h"
#include "shell/errors.h"

namespace norvanta {

ObjectId wgs84_datum = 0;
GeodesyIndexes geodesy_indexes{};

namespace {

constexpr int32_t wgs84_datum_code = 214;
constexpr int32_t greenwich_code = 1;
constexpr int32_t custom_datum_cost = 60;
constexpr int32_t custom_shift_method = 3;

// A scanned name holds at most this many bytes with its NUL; the formats'
// field width is one less.
constexpr std::size_t name_capacity = 256;
#define NORVANTA_NAME_FIELD "%255[^;]"

constexpr char ellipsoid_format[] = "%d;" NORVANTA_NAME_FIELD ";%lf;%lf;%lf;%d\n";
constexpr char meridian_format[] = "%d;" NORVANTA_NAME_FIELD ";%lf;%d\n";
constexpr char datum_format[] = "%d;" NORVANTA_NAME_FIELD ";%d;%d;%d;%d\n";
constexpr char shift_format[] =
    "%d;%d;%d;%d;%lf;%lf;%lf;%lf;%lf;%lf;%lf;%lf;%lf;%lf;%d;%d;%d;%d;%d;%d\n";
constexpr char projected_format[] =
    "%d;" NORVANTA_NAME_FIELD ";%d;%d;%lf;%lf;%lf;%lf;%lf;%lf;%lf;%lf;%d;%d;%d\n";
constexpr char alias_format[] = "%d;" NORVANTA_NAME_FIELD ";%d\n";
#undef NORVANTA_NAME_FIELD

constexpr int ellipsoid_fields = 6;
constexpr int meridian_fields = 4;
constexpr int datum_fields = 6;
constexpr int shift_fields = 20;
constexpr int projected_fields = 15;
constexpr int alias_fields = 3;

// An inverse flattening at most this small means the row gave the axes.
constexpr double flattening_absent_limit = 2e-14;
// A scale flag of this value gives the scale in parts per million.
constexpr int32_t scale_flag_ppm = 2;
constexpr double ppm = 1e-6;
// find_shift: a distance of n times this stands for unreachable.
constexpr int64_t unreachable_per_code = 250;
constexpr int last_projected_method = 47;
// A log line names a table by its path.
constexpr std::size_t log_message_capacity = 512;

// shift_equals: tolerances, strict.
constexpr double translation_tolerance = 1e-6; // metres
constexpr double rotation_tolerance = 1e-7;    // radians
constexpr double scale_tolerance = 1e-14;      // ratio
constexpr double pivot_tolerance = 0.01;       // metres
// find_ellipsoid: tolerances.
constexpr double semi_major_tolerance = 0.001; // metres
constexpr double inverse_flattening_tolerance = 1e-6;

// The parameter vector of a shift, in the order of the table rows.
enum ShiftParameter {
    parameter_tx,
    parameter_ty,
    parameter_tz,
    parameter_rx,
    parameter_ry,
    parameter_rz,
    parameter_scale,
    parameter_px,
    parameter_py,
    parameter_pz,
    shift_parameter_count
};

// Table methods of gcentric.txt and the operation each selects; any other
// method refuses its row.
struct ShiftMethod {
    int32_t method;
    int32_t op;
};
constexpr ShiftMethod shift_methods[] = {
    {0, shift_op_none},  {1, shift_op_meridian}, {3, shift_op_translation},
    {7, shift_op_seven}, {10, shift_op_ten},
};
static_assert(sizeof(shift_methods) / sizeof(shift_methods[0]) == 5);

// The dictionary types in index order: by_code and by_name are indexed by
// type minus this.
constexpr int32_t first_dictionary_type = static_cast<int32_t>(ObjectType::Ellipsoid);
constexpr int dictionary_type_count = 5;

// One destructor frees the name of types 35, 37, 38 and 39: the name sits at
// the same place in all four records.
static_assert(offsetof(Ellipsoid, name) == offsetof(Datum, name));
static_assert(offsetof(Ellipsoid, name) == offsetof(ProjectedSystem, name));
static_assert(offsetof(Ellipsoid, name) == offsetof(PrimeMeridian, name));
static_assert(offsetof(Ellipsoid, code) == offsetof(Datum, code));
static_assert(offsetof(Ellipsoid, code) == offsetof(ProjectedSystem, code));
static_assert(offsetof(Ellipsoid, code) == offsetof(PrimeMeridian, code));
static_assert(offsetof(Ellipsoid, code) == offsetof(DatumShift, code));

void free_record_name(void* record) {
    char* name = nullptr;
    char* field = static_cast<char*>(record) + offsetof(Ellipsoid, name);
    std::memcpy(&name, field, sizeof name);
    free_mem(name);
    std::memcpy(field, &name, sizeof name);
}

int dictionary_slot(ObjectType type) {
    int slot = static_cast<int32_t>(type) - first_dictionary_type;
    return slot >= 0 && slot < dictionary_type_count ? slot : -1;
}

bool valid_angle_unit(int32_t unit) {
    return unit >= 0 && unit <= last_row_angle_unit;
}
bool valid_length_unit(int32_t unit) {
    return unit >= 0 && unit <= last_row_length_unit;
}

void create_indexes() {
    GeodesyIndexes& ix = geodesy_indexes;
    constexpr std::size_t code_offset = offsetof(Ellipsoid, code);
    constexpr std::size_t name_offset = offsetof(Ellipsoid, name);
    for (int slot = 0; slot < dictionary_type_count; ++slot) {
        auto type = static_cast<ObjectType>(first_dictionary_type + slot);
        oset_create(0, 0, type, FieldKind::integer, code_offset, ix.by_code[slot]);
        if (type != ObjectType::DatumShift) {
            oset_create(0, 0, type, FieldKind::byte_string, name_offset, ix.by_name[slot]);
        }
    }
    oset_create(0, 0, ObjectType::Ellipsoid, FieldKind::real, offsetof(Ellipsoid, semi_major),
                ix.ellipsoid_by_semi_major);
    oset_create(0, 0, ObjectType::Datum, FieldKind::id, offsetof(Datum, ellipsoid),
                ix.datum_by_ellipsoid);
    oset_create(0, 0, ObjectType::DatumShift, FieldKind::id, offsetof(DatumShift, source),
                ix.shift_by_source);
    oset_create(0, 0, ObjectType::DatumShift, FieldKind::id, offsetof(DatumShift, target),
                ix.shift_by_target);
    oset_create(0, 0, ObjectType::ProjectedSystem, FieldKind::id, offsetof(ProjectedSystem, datum),
                ix.projected_by_datum);
    oset_create(0, 0, ObjectType::NameAlias, FieldKind::byte_string, offsetof(NameAlias, text),
                ix.alias_by_text);
    oset_create(0, 0, ObjectType::NameAlias, FieldKind::integer, offsetof(NameAlias, code),
                ix.alias_by_code);
}

void delete_indexes() {
    GeodesyIndexes& ix = geodesy_indexes;
    for (int slot = 0; slot < dictionary_type_count; ++slot) {
        oset_delete(ix.by_code[slot]);
        oset_delete(ix.by_name[slot]);
    }
    oset_delete(ix.ellipsoid_by_semi_major);
    oset_delete(ix.datum_by_ellipsoid);
    oset_delete(ix.shift_by_source);
    oset_delete(ix.shift_by_target);
    oset_delete(ix.projected_by_datum);
    oset_delete(ix.alias_by_text);
    oset_delete(ix.alias_by_code);
}

// ---- reading ----

// Opens a table of the directory; error 2 when it cannot be read.
std::FILE* open_table(const char* directory, const char* file_name) {
    std::string path = std::string(directory ? directory : "") + file_name;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) {
        set_gblerr(ErrorCode::file_access);
        char text[log_message_capacity];
        std::snprintf(text, sizeof text,
                      localized("Table geodesique absente : %s", "Geodesy table missing: %s"),
                      path.c_str());
        log_and_keep_error(text);
        note_start_failure(text);
    }
    return file;
}

// Reads every row of a table: scan(file) returns what fscanf returned, and
// take() uses the row. A short scan, or an empty file, is error 14 and ends the
// load; an error that take() leaves (a bad unit, an unknown reference) only
// drops its row.
template <class Scan, class Take>
bool read_table(const char* directory, const char* file_name, int field_count, Scan scan,
                Take take) {
    std::FILE* file = open_table(directory, file_name);
    if (!file) return false;
    int row = 0;
    for (;;) {
        int fields = scan(file);
        if (fields == EOF && row > 0) break;
        ++row;
        if (fields != field_count) {
            std::fclose(file);
            set_gblerr(ErrorCode::invalid_file);
            char text[log_message_capacity];
            std::snprintf(text, sizeof text,
                          localized("Table geodesique invalide : %s%s, ligne %d",
                                    "Invalid geodesy table: %s%s, line %d"),
                          directory ? directory : "", file_name, row);
            log_and_keep_error(text);
            note_start_failure(text);
            return false;
        }
        take();
        if (error_pending()) set_gblerr(ErrorCode::none);
    }
    std::fclose(file);
    return true;
}

bool read_aliases(const char* directory, const char* file_name, ObjectType kind) {
    int32_t scheme = 0;
    int32_t code = 0;
    char text[name_capacity] = {};
    return read_table(
        directory, file_name, alias_fields,
        [&](std::FILE* file) { return std::fscanf(file, alias_format, &scheme, text, &code); },
        [&] {
            ObjectId id = 0;
            NameAlias* alias = cre_obj<NameAlias>(&id);
            if (!alias) return;
            alias->kind = static_cast<int32_t>(kind);
            alias->code = code;
            alias->list = scheme;
            str_copy(text, alias->text);
            geodesy_index_add(ObjectType::NameAlias, id);
        });
}

double eccentricity_squared_from(double semi_major, double inverse_flattening, double semi_minor) {
    if (inverse_flattening <= flattening_absent_limit) {
        return (semi_major * semi_major - semi_minor * semi_minor) / (semi_major * semi_major);
    }
    return (2.0 * inverse_flattening - 1.0) / (inverse_flattening * inverse_flattening);
}

void make_ellipsoid(int32_t code, const char* name, double semi_major, double inverse_flattening,
                    double semi_minor, ObjectId& out_id) {
    Ellipsoid* ellipsoid = cre_obj<Ellipsoid>(&out_id);
    if (!ellipsoid) return;
    ellipsoid->code = code;
    str_copy(name, ellipsoid->name);
    ellipsoid->semi_major = semi_major;
    ellipsoid->eccentricity_squared =
        eccentricity_squared_from(semi_major, inverse_flattening, semi_minor);
    if (inverse_flattening <= flattening_absent_limit) {
        ellipsoid->inverse_flattening = 0.0;
        ellipsoid->semi_minor = semi_minor;
    } else {
        ellipsoid->inverse_flattening = inverse_flattening;
        ellipsoid->semi_minor = 0.0;
    }
    geodesy_index_add(ObjectType::Ellipsoid, out_id);
}

bool read_ellipsoids(const char* directory) {
    int32_t code = 0;
    char name[name_capacity] = {};
    double semi_major = 0.0;
    double inverse_flattening = 0.0;
    double semi_minor = 0.0;
    int32_t unit = 0;
    return read_table(
        directory, "ellipsoi.txt", ellipsoid_fields,
        [&](std::FILE* file) {
            return std::fscanf(file, ellipsoid_format, &code, name, &semi_major,
                               &inverse_flattening, &semi_minor, &unit);
        },
        [&] {
            if (!valid_length_unit(unit)) return;
            double factor = length_units[unit].factor;
            ObjectId id = 0;
            make_ellipsoid(code, name, semi_major * factor, inverse_flattening, semi_minor * factor,
                           id);
        });
}

bool read_meridians(const char* directory) {
    int32_t code = 0;
    char name[name_capacity] = {};
    double longitude = 0.0;
    int32_t unit = 0;
    return read_table(
        directory, "pmeridian.txt", meridian_fields,
        [&](std::FILE* file) {
            return std::fscanf(file, meridian_format, &code, name, &longitude, &unit);
        },
        [&] {
            if (!valid_angle_unit(unit)) return;
            ObjectId id = 0;
            PrimeMeridian* meridian = cre_obj<PrimeMeridian>(&id);
            if (!meridian) return;
            meridian->code = code;
            str_copy(name, meridian->name);
            meridian->longitude = longitude / angle_units[unit].factor;
            meridian->angle_unit = unit;
            geodesy_index_add(ObjectType::PrimeMeridian, id);
        });
}

// A Datum on an Ellipsoid and a PrimeMeridian already found.
Datum* make_datum(int32_t code, const char* name, int32_t angle_unit, ObjectId ellipsoid_id,
                  ObjectId meridian_id, ObjectId& out_id) {
    out_id = 0;
    Ellipsoid* ellipsoid = get_obj_adr<Ellipsoid>(ellipsoid_id);
    PrimeMeridian* meridian = get_obj_adr<PrimeMeridian>(meridian_id);
    if (!ellipsoid || !meridian) return nullptr;
    Datum* datum = cre_obj<Datum>(&out_id);
    if (!datum) return nullptr;
    datum->code = code;
    str_copy(name, datum->name);
    datum->angle_unit = angle_unit;
    datum->ellipsoid = ellipsoid_id;
    datum->prime_meridian = meridian_id;
    datum->prime_meridian_longitude = meridian->longitude;
    datum->ellipsoid_record = ellipsoid;
    geodesy_index_add(ObjectType::Datum, out_id);
    return datum;
}

bool read_datums(const char* directory) {
    int32_t code = 0;
    char name[name_capacity] = {};
    int32_t ellipsoid_code = 0;
    int32_t meridian_code = 0;
    int32_t unit = 0;
    int32_t ignored = 0;
    return read_table(
        directory, "datum.txt", datum_fields,
        [&](std::FILE* file) {
            return std::fscanf(file, datum_format, &code, name, &ellipsoid_code, &meridian_code,
                               &unit, &ignored);
        },
        [&] {
            if (!valid_angle_unit(unit)) return;
            ObjectId ellipsoid = find_by_code(ObjectType::Ellipsoid, ellipsoid_code);
            ObjectId meridian = find_by_code(ObjectType::PrimeMeridian, meridian_code);
            if (ellipsoid == 0 || meridian == 0) {
                set_gblerr(ErrorCode::geographic);
                return;
            }
            ObjectId id = 0;
            make_datum(code, name, unit, ellipsoid, meridian, id);
        });
}

struct ShiftRow {
    int32_t code;
    int32_t source_code;
    int32_t target_code;
    int32_t method;
    double values[shift_parameter_count];
    int32_t length_unit;
    int32_t angle_unit;
    int32_t scale_flag;
    int32_t cost;
    int32_t ignored[2];
};

void take_shift_row(const ShiftRow& row) {
    if (!valid_length_unit(row.length_unit)) return;
    if (row.method > custom_shift_method && !valid_angle_unit(row.angle_unit)) return;
    ObjectId source_id = find_by_code(ObjectType::Datum, row.source_code);
    ObjectId target_id = find_by_code(ObjectType::Datum, row.target_code);
    Datum* source = find_obj_adr<Datum>(source_id);
    Datum* target = find_obj_adr<Datum>(target_id);
    if (!source || !target) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    int32_t op = -1;
    for (const ShiftMethod& method : shift_methods) {
        if (method.method == row.method) op = method.op;
    }
    if (op < 0) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    ObjectId id = 0;
    DatumShift* shift = cre_obj<DatumShift>(&id);
    if (!shift) return;
    shift->code = row.code;
    shift->op = op;
    shift->source = source_id;
    shift->target = target_id;
    shift->cost = row.cost;
    shift->length_unit = row.length_unit;
    if (op == shift_op_meridian) {
        // The shift acts on geographic coordinates: its two units are those of
        // the two Datums.
        shift->length_unit = source->angle_unit;
        shift->to_angle_unit = target->angle_unit;
        shift->translation_x = source->prime_meridian_longitude - target->prime_meridian_longitude;
    } else {
        double metres = length_units[row.length_unit].factor;
        int32_t angle_unit = row.angle_unit >= 0 && row.angle_unit < angle_unit_count
                                 ? row.angle_unit
                                 : angle_unit_degree;
        double per_radian = angle_units[angle_unit].factor;
        shift->translation_x = row.values[parameter_tx] * metres;
        shift->translation_y = row.values[parameter_ty] * metres;
        shift->translation_z = row.values[parameter_tz] * metres;
        shift->rotation_x = row.values[parameter_rx] / per_radian;
        shift->rotation_y = row.values[parameter_ry] / per_radian;
        shift->rotation_z = row.values[parameter_rz] / per_radian;
        shift->scale = row.values[parameter_scale];
        if (row.scale_flag == scale_flag_ppm) shift->scale *= ppm;
        shift->pivot_x = row.values[parameter_px] * metres;
        shift->pivot_y = row.values[parameter_py] * metres;
        shift->pivot_z = row.values[parameter_pz] * metres;
    }
    geodesy_index_add(ObjectType::DatumShift, id);
}

bool read_shifts(const char* directory) {
    ShiftRow row{};
    double* v = row.values;
    return read_table(
        directory, "gcentric.txt", shift_fields,
        [&](std::FILE* file) {
            return std::fscanf(file, shift_format, &row.code, &row.source_code, &row.target_code,
                               &row.method, &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7],
                               &v[8], &v[9], &row.length_unit, &row.angle_unit, &row.scale_flag,
                               &row.cost, &row.ignored[0], &row.ignored[1]);
        },
        [&] { take_shift_row(row); });
}

bool read_projected(const char* directory) {
    int32_t code = 0;
    char name[name_capacity] = {};
    int32_t datum_code = 0;
    int32_t method = 0;
    double values[8] = {};
    int32_t length_unit = 0;
    int32_t angle_unit = 0;
    int32_t ignored = 0;
    double* v = values;
    return read_table(
        directory, "cartproj.txt", projected_fields,
        [&](std::FILE* file) {
            return std::fscanf(file, projected_format, &code, name, &datum_code, &method, &v[0],
                               &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &length_unit,
                               &angle_unit, &ignored);
        },
        [&] {
            if (!valid_length_unit(length_unit) || !valid_angle_unit(angle_unit)) return;
            if (method < 0 || method > last_projected_method) return;
            ObjectId datum = find_by_code(ObjectType::Datum, datum_code);
            if (datum == 0) {
                set_gblerr(ErrorCode::geographic);
                return;
            }
            ObjectId id = 0;
            projected_create(name, method, values, length_unit, angle_unit, datum, code, id);
            if (id != 0 && !error_pending()) geodesy_index_add(ObjectType::ProjectedSystem, id);
        });
}

// ---- look-ups ----

ObjectId wgs84() {
    if (wgs84_datum == 0) return find_by_code(ObjectType::Datum, wgs84_datum_code);
    return wgs84_datum;
}

int32_t datum_code_of(ObjectId datum) {
    const Datum* record = find_obj_adr<Datum>(datum);
    return record ? record->code : -1;
}

// The parameters of a shift in the order of the rows, brought to metres and radians.
void shift_parameters(const DatumShift& shift, double out[shift_parameter_count]) {
    out[parameter_tx] = shift.translation_x;
    out[parameter_ty] = shift.translation_y;
    out[parameter_tz] = shift.translation_z;
    out[parameter_rx] = shift.rotation_x;
    out[parameter_ry] = shift.rotation_y;
    out[parameter_rz] = shift.rotation_z;
    out[parameter_scale] = shift.scale;
    out[parameter_px] = shift.pivot_x;
    out[parameter_py] = shift.pivot_y;
    out[parameter_pz] = shift.pivot_z;
}

// The step of a path in find_shift: a shift, taken as it stands or inverted.
// The inverse is made only for the steps of the path that is returned.
struct PathStep {
    ObjectId shift;
    bool inverted;
};

ObjectId step_shift(const PathStep& step) {
    return step.inverted ? shift_inverse(step.shift) : step.shift;
}

} // namespace

// ---- registration and loading ----

void geodesy_register_types() {
    set_obj_type<Ellipsoid>();
    set_obj_type<DatumShift>();
    set_obj_type<Datum>();
    set_obj_type<ProjectedSystem>();
    set_obj_type<PrimeMeridian>();
    set_obj_type<NameAlias>();
    set_obj_type<GeoReference>();
    set_obj_type<ScaleRecord>();
    set_obj_destructor(ObjectType::Ellipsoid, free_record_name);
    set_obj_destructor(ObjectType::Datum, free_record_name);
    set_obj_destructor(ObjectType::ProjectedSystem, free_record_name);
    set_obj_destructor(ObjectType::PrimeMeridian, free_record_name);
}

void geodesy_load_from(const char* directory) {
    if (geodesy_indexes.by_code[0] == 0) create_indexes();
    if (error_pending()) return;
    if (!read_ellipsoids(directory)) return;
    if (!read_aliases(directory, "ellipsil.txt", ObjectType::Ellipsoid)) return;
    if (!read_meridians(directory)) return;
    if (!read_aliases(directory, "pmeridil.txt", ObjectType::PrimeMeridian)) return;
    if (!read_datums(directory)) return;
    if (!read_aliases(directory, "datumil.txt", ObjectType::Datum)) return;
    if (!read_shifts(directory)) return;
    if (!read_aliases(directory, "gcentril.txt", ObjectType::DatumShift)) return;
    if (!read_projected(directory)) return;
    read_aliases(directory, "cartpril.txt", ObjectType::ProjectedSystem);
}

void geodesy_load() {
    geodesy_load_from(system_dir());
}

void geodesy_find_wgs84() {
    wgs84_datum = find_by_code(ObjectType::Datum, wgs84_datum_code);
}

void geodesy_unload() {
    static constexpr ObjectType types[] = {ObjectType::NameAlias,     ObjectType::ProjectedSystem,
                                           ObjectType::DatumShift,    ObjectType::Datum,
                                           ObjectType::PrimeMeridian, ObjectType::Ellipsoid};
    for (ObjectType type : types) {
        ObjectId id = 0;
        void* record = nullptr;
        while (next_obj(type, id, &record) && id != 0) {
            if (type == ObjectType::NameAlias) free_mem(static_cast<NameAlias*>(record)->text);
            ObjectId doomed = id;
            del_obj(type, doomed);
        }
    }
    delete_indexes();
    wgs84_datum = 0;
}

void geodesy_index_add(ObjectType type, ObjectId id) {
    GeodesyIndexes& ix = geodesy_indexes;
    int slot = dictionary_slot(type);
    if (slot >= 0) {
        oset_insert(ix.by_code[slot], id);
        if (ix.by_name[slot] != 0) oset_insert(ix.by_name[slot], id);
    }
    switch (type) {
    case ObjectType::Ellipsoid:
        oset_insert(ix.ellipsoid_by_semi_major, id);
        break;
    case ObjectType::Datum:
        oset_insert(ix.datum_by_ellipsoid, id);
        break;
    case ObjectType::DatumShift:
        oset_insert(ix.shift_by_source, id);
        oset_insert(ix.shift_by_target, id);
        break;
    case ObjectType::ProjectedSystem:
        oset_insert(ix.projected_by_datum, id);
        break;
    case ObjectType::NameAlias:
        oset_insert(ix.alias_by_text, id);
        oset_insert(ix.alias_by_code, id);
        break;
    default:
        break;
    }
}

// ---- look-ups ----

ObjectId find_by_code(ObjectType type, int32_t code) {
    int slot = dictionary_slot(type);
    if (slot < 0) return 0;
    bool exact = false;
    ObjectId found = oset_search(geodesy_indexes.by_code[slot], &code, &exact);
    return exact ? found : 0;
}

int32_t next_code(ObjectType type) {
    int slot = dictionary_slot(type);
    if (slot < 0) return 0;
    ObjectId handle = geodesy_indexes.by_code[slot];
    int32_t count = oset_count(handle);
    if (count == 0) return 0;
    // A stale last element (a deleted record) is passed over.
    for (int32_t position = count - 1; position >= 0; --position) {
        const void* key = oset_key(handle, oset_at(handle, position));
        if (!key) continue;
        int32_t code = 0;
        std::memcpy(&code, key, sizeof code);
        return code + 1;
    }
    return 0;
}

ObjectId find_alias(ObjectType type, int32_t scheme, const char* text) {
    if (!text) return 0;
    ObjectId id = 0;
    void* record = nullptr;
    while (oset_next_equal(geodesy_indexes.alias_by_text, text, id, &record)) {
        const auto* alias = static_cast<const NameAlias*>(record);
        if (!alias || alias->kind != static_cast<int32_t>(type) || alias->list != scheme) continue;
        if (std::strcmp(alias->text ? alias->text : "", text) != 0) continue;
        return find_by_code(type, alias->code);
    }
    return 0;
}

const char* get_alias(ObjectType type, int32_t scheme, int32_t code) {
    ObjectId id = 0;
    void* record = nullptr;
    while (oset_next_equal(geodesy_indexes.alias_by_code, &code, id, &record)) {
        const auto* alias = static_cast<const NameAlias*>(record);
        if (alias && alias->kind == static_cast<int32_t>(type) && alias->list == scheme) {
            return alias->text;
        }
    }
    return nullptr;
}

ObjectId find_ellipsoid(double semi_major, double inverse_flattening) {
    ObjectId id = 0;
    void* record = nullptr;
    while (oset_next_equal(geodesy_indexes.ellipsoid_by_semi_major, &semi_major, id, &record)) {
        const auto* ellipsoid = static_cast<const Ellipsoid*>(record);
        if (!ellipsoid) continue;
        double flattening = ellipsoid->inverse_flattening;
        if (flattening == 0.0) {
            flattening = ellipsoid->semi_major / (ellipsoid->semi_major - ellipsoid->semi_minor);
        }
        if (std::fabs(ellipsoid->semi_major - semi_major) < semi_major_tolerance &&
            std::fabs(flattening - inverse_flattening) < inverse_flattening_tolerance) {
            return id;
        }
    }
    return 0;
}

ObjectId find_meridian(double longitude, int32_t angle_unit) {
    if (angle_unit < 0 || angle_unit >= angle_unit_count) return 0;
    double radians = longitude / angle_units[angle_unit].factor;
    ObjectId handle = geodesy_indexes.by_code[dictionary_slot(ObjectType::PrimeMeridian)];
    int32_t count = oset_count(handle);
    for (int32_t position = 0; position < count; ++position) {
        ObjectId id = oset_at(handle, position);
        const PrimeMeridian* meridian = find_obj_adr<PrimeMeridian>(id);
        if (meridian && meridian->longitude == radians) return id;
    }
    return 0;
}

ObjectId find_datum(ObjectId ellipsoid, ObjectId prime_meridian, int parameter_count,
                    const double* parameters) {
    double given[shift_parameter_count] = {};
    for (int i = 0; i < parameter_count && i < shift_parameter_count && parameters; ++i) {
        given[i] = parameters[i];
    }
    ObjectId reference = wgs84();
    ObjectId datum_id = 0;
    void* record = nullptr;
    while (oset_next_equal(geodesy_indexes.datum_by_ellipsoid, &ellipsoid, datum_id, &record)) {
        const auto* datum = static_cast<const Datum*>(record);
        if (!datum || datum->prime_meridian != prime_meridian) continue;
        ObjectId shift = 0;
        void* shift_record = nullptr;
        while (oset_next_equal(geodesy_indexes.shift_by_source, &datum_id, shift, &shift_record)) {
            if (static_cast<const DatumShift*>(shift_record)->target == reference &&
                shift_equals(shift, given, length_unit_metre, angle_unit_second, 0)) {
                return datum_id;
            }
        }
        shift = 0;
        while (oset_next_equal(geodesy_indexes.shift_by_target, &datum_id, shift, &shift_record)) {
            if (static_cast<const DatumShift*>(shift_record)->source == reference &&
                shift_equals(shift, given, length_unit_metre, angle_unit_second, 1)) {
                return datum_id;
            }
        }
    }
    return 0;
}

bool shift_equals(ObjectId shift_id, const double parameters[10], int32_t length_unit,
                  int32_t angle_unit, int invert) {
    if (invert == 1) shift_id = shift_inverse(shift_id);
    const DatumShift* shift = find_obj_adr<DatumShift>(shift_id);
    if (!shift || !parameters) return false;
    if (length_unit < 0 || length_unit >= length_unit_count) return false;
    if (angle_unit < 0 || angle_unit >= angle_unit_count) return false;
    double metres = length_units[length_unit].factor;
    double per_radian = angle_units[angle_unit].factor;
    double held[shift_parameter_count];
    shift_parameters(*shift, held);
    struct Check {
        ShiftParameter first;
        ShiftParameter last;
        double tolerance;
    };
    static constexpr Check checks[] = {
        {parameter_tx, parameter_tz, translation_tolerance},
        {parameter_rx, parameter_rz, rotation_tolerance},
        {parameter_scale, parameter_scale, scale_tolerance},
        {parameter_px, parameter_pz, pivot_tolerance},
    };
    for (const Check& check : checks) {
        for (int i = check.first; i <= check.last; ++i) {
            double given = parameters[i];
            if (i <= parameter_tz || i >= parameter_px) given *= metres;
            if (i >= parameter_rx && i <= parameter_rz) given /= per_radian;
            if (!(std::fabs(held[i] - given) < check.tolerance)) return false;
        }
    }
    return true;
}

ObjectId shift_inverse(ObjectId shift_id) {
    DatumShift* shift = get_obj_adr<DatumShift>(shift_id);
    if (!shift) return 0;
    if (shift->inverse != 0 && exist_obj(ObjectType::DatumShift, shift->inverse)) {
        return shift->inverse;
    }
    int32_t code = next_code(ObjectType::DatumShift);
    ObjectId inverse_id = 0;
    DatumShift* inverse = cre_obj<DatumShift>(&inverse_id);
    if (!inverse) return 0;
    inverse->code = code;
    inverse->cost = shift->cost;
    inverse->op = shift->op;
    inverse->source = shift->target;
    inverse->target = shift->source;
    inverse->length_unit = shift->length_unit;
    inverse->to_angle_unit = shift->to_angle_unit;
    switch (shift->op) {
    case shift_op_meridian:
        inverse->translation_x = -shift->translation_x;
        inverse->length_unit = shift->to_angle_unit;
        inverse->to_angle_unit = shift->length_unit;
        break;
    case shift_op_translation:
        inverse->translation_x = -shift->translation_x;
        inverse->translation_y = -shift->translation_y;
        inverse->translation_z = -shift->translation_z;
        break;
    case shift_op_seven:
    case shift_op_ten:
        inverse->translation_x = -shift->translation_x;
        inverse->translation_y = -shift->translation_y;
        inverse->translation_z = -shift->translation_z;
        inverse->rotation_x = -shift->rotation_x;
        inverse->rotation_y = -shift->rotation_y;
        inverse->rotation_z = -shift->rotation_z;
        inverse->scale = -shift->scale;
        break;
    default:
        break;
    }
    inverse->inverse = shift_id;
    shift->inverse = inverse_id;
    geodesy_index_add(ObjectType::DatumShift, inverse_id);
    return inverse_id;
}

bool find_shift(ObjectId from, ObjectId to, ObjectId* out_shift, int32_t* out_cost) {
    if (from == 0 || to == 0) return false;
    // The same Datum needs no shift at all.
    if (from == to) {
        if (out_shift) *out_shift = 0;
        return true;
    }
    int32_t from_code = datum_code_of(from);
    int32_t to_code = datum_code_of(to);
    int32_t n = next_code(ObjectType::Datum);
    if (from_code < 0 || to_code < 0 || from_code >= n || to_code >= n) return false;
    const int64_t unreachable = static_cast<int64_t>(n) * unreachable_per_code;

    auto count = static_cast<std::size_t>(n);
    bool* open = nullptr;
    int64_t* distance = nullptr;
    int32_t* previous = nullptr;
    PathStep* via = nullptr;
    ObjectId* datum_of_code = nullptr;
    alloc_mem(open, count * sizeof(bool));
    alloc_mem(distance, count * sizeof(int64_t));
    alloc_zero_mem(previous, count * sizeof(int32_t));
    alloc_zero_mem(via, count * sizeof(PathStep));
    alloc_zero_mem(datum_of_code, count * sizeof(ObjectId));
    for (std::size_t i = 0; i < count; ++i) {
        open[i] = true;
        distance[i] = unreachable;
    }
    ObjectId by_code = geodesy_indexes.by_code[dictionary_slot(ObjectType::Datum)];
    for (int32_t position = 0, total = oset_count(by_code); position < total; ++position) {
        ObjectId id = oset_at(by_code, position);
        int32_t code = datum_code_of(id);
        if (code >= 0 && code < n && datum_of_code[code] == 0) datum_of_code[code] = id;
    }

    // Relaxes the neighbours of current found through one index; through
    // the source index the shift leads away from `to`, so its inverse is the step.
    auto relax = [&](int32_t current, ObjectId index, bool through_source) {
        ObjectId current_id = datum_of_code[current];
        if (current_id == 0) return;
        ObjectId shift_id = 0;
        void* record = nullptr;
        while (oset_next_equal(index, &current_id, shift_id, &record)) {
            const auto* shift = static_cast<const DatumShift*>(record);
            if (!shift) continue;
            int32_t neighbour = datum_code_of(through_source ? shift->target : shift->source);
            if (neighbour < 0 || neighbour >= n) continue;
            int64_t candidate = distance[current] + shift->cost;
            if (candidate < distance[neighbour]) {
                distance[neighbour] = candidate;
                previous[neighbour] = current;
                via[neighbour] = PathStep{shift_id, through_source};
            }
        }
    };

    distance[to_code] = 0;
    open[to_code] = false;
    int32_t current = to_code;
    for (int32_t round = 0; round < n && open[from_code]; ++round) {
        relax(current, geodesy_indexes.shift_by_source, true);
        relax(current, geodesy_indexes.shift_by_target, false);
        int32_t next = -1;
        for (int32_t code = n - 1; code >= 0; --code) {
            if (open[code] && (next < 0 || distance[code] < distance[next])) next = code;
        }
        // Nothing reachable is left open: the rest of the rounds cannot close `from`.
        if (next < 0 || distance[next] >= unreachable) break;
        current = next;
        open[current] = false;
    }

    bool found = !open[from_code];
    if (found && out_shift) {
        *out_shift = 0;
        if (previous[from_code] == to_code) {
            *out_shift = step_shift(via[from_code]);
        } else {
            int32_t code = next_code(ObjectType::DatumShift);
            ObjectId composite_id = 0;
            DatumShift* composite = cre_obj<DatumShift>(&composite_id);
            if (composite) {
                composite->code = code;
                composite->op = shift_op_none;
                composite->source = from;
                composite->target = from;
                double sum[shift_parameter_count] = {};
                for (int32_t step = from_code; step != to_code; step = previous[step]) {
                    const DatumShift* part = find_obj_adr<DatumShift>(step_shift(via[step]));
                    if (!part || part->source != composite->target) {
                        set_gblerr(ErrorCode::geographic);
                        break;
                    }
                    composite->target = part->target;
                    if (part->op > composite->op) composite->op = part->op;
                    composite->cost += part->cost;
                    double terms[shift_parameter_count];
                    shift_parameters(*part, terms);
                    for (int i = 0; i < parameter_px; ++i)
                        sum[i] += terms[i];
                }
                composite->translation_x = sum[parameter_tx];
                composite->translation_y = sum[parameter_ty];
                composite->translation_z = sum[parameter_tz];
                composite->rotation_x = sum[parameter_rx];
                composite->rotation_y = sum[parameter_ry];
                composite->rotation_z = sum[parameter_rz];
                composite->scale = sum[parameter_scale];
                composite->cost -= 1;
                if (!error_pending()) {
                    // Cheaper by one than the path it sums, it is the one step
                    // that the next search between the same Datums takes.
                    geodesy_index_add(ObjectType::DatumShift, composite_id);
                    if (out_cost) *out_cost = composite->cost;
                    *out_shift = composite_id;
                } else {
                    ErrorHold hold;
                    del_obj(ObjectType::DatumShift, composite_id);
                }
            }
            found = *out_shift != 0;
        }
    }
    free_mem(open);
    free_mem(distance);
    free_mem(previous);
    free_mem(via);
    free_mem(datum_of_code);
    return found;
}

// ---- GeoReferences and custom datums ----

void make_default_georeference(ObjectId& out_id) {
    GeoReference* reference = cre_obj<GeoReference>(&out_id);
    if (!reference) return;
    reference->kind = georeference_geographic;
    reference->datum = wgs84();
    georeference_take_unit(out_id);
}

void make_custom_datum(const double ellipsoid_parameters[2], const double shift_parameters[3],
                       ObjectId& out_datum) {
    out_datum = 0;
    double semi_major = ellipsoid_parameters[0];
    double inverse_flattening = ellipsoid_parameters[1];
    ObjectId ellipsoid = find_ellipsoid(semi_major, inverse_flattening);
    if (ellipsoid == 0) {
        make_ellipsoid(next_code(ObjectType::Ellipsoid), "GTM custom ellipsoid", semi_major,
                       inverse_flattening, 0.0, ellipsoid);
        if (ellipsoid == 0) return;
    }
    ObjectId meridian = find_by_code(ObjectType::PrimeMeridian, greenwich_code);
    if (meridian == 0) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    out_datum = find_datum(ellipsoid, meridian, 3, shift_parameters);
    if (out_datum != 0) return;
    ObjectId reference = wgs84();
    if (reference == 0) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    Datum* datum = make_datum(next_code(ObjectType::Datum), "GTM custom datum", angle_unit_degree,
                              ellipsoid, meridian, out_datum);
    if (!datum) return;
    int32_t code = next_code(ObjectType::DatumShift);
    ObjectId shift_id = 0;
    DatumShift* shift = cre_obj<DatumShift>(&shift_id);
    if (!shift) return;
    shift->code = code;
    shift->op = shift_op_translation;
    shift->length_unit = length_unit_metre;
    shift->source = out_datum;
    shift->target = reference;
    shift->cost = custom_datum_cost;
    shift->translation_x = shift_parameters[parameter_tx];
    shift->translation_y = shift_parameters[parameter_ty];
    shift->translation_z = shift_parameters[parameter_tz];
    geodesy_index_add(ObjectType::DatumShift, shift_id);
}

void georeference_take_unit(ObjectId id) {
    GeoReference* reference = get_obj_adr<GeoReference>(id);
    if (!reference) return;
    if (reference->kind == georeference_geographic) {
        if (const Datum* datum = get_obj_adr<Datum>(reference->datum)) {
            reference->unit = datum->angle_unit;
        }
    } else if (reference->kind == georeference_projected) {
        if (const ProjectedSystem* system = get_obj_adr<ProjectedSystem>(reference->projected)) {
            reference->unit = system->length_unit;
        }
    }
}

void georeference_fix_units(ObjectId id) {
    GeoReference* reference = get_obj_adr<GeoReference>(id);
    if (!reference) return;
    int32_t own_unit = 0;
    double ratio = 1.0;
    if (reference->kind == georeference_geographic) {
        const Datum* datum = find_obj_adr<Datum>(reference->datum);
        if (!datum) {
            set_gblerr(ErrorCode::geographic);
            return;
        }
        own_unit = datum->angle_unit;
        if (reference->unit == own_unit) return;
        if (reference->unit < 0 || reference->unit >= angle_unit_count || own_unit < 0 ||
            own_unit >= angle_unit_count) {
            set_gblerr(ErrorCode::geographic);
            return;
        }
        // Angle factors are units per radian.
        ratio = angle_units[own_unit].factor / angle_units[reference->unit].factor;
    } else if (reference->kind == georeference_projected) {
        const ProjectedSystem* system = find_obj_adr<ProjectedSystem>(reference->projected);
        if (!system) {
            set_gblerr(ErrorCode::geographic);
            return;
        }
        own_unit = system->length_unit;
        if (reference->unit == own_unit) return;
        // Length factors are metres per unit; the last unit is 0 and never valid.
        if (reference->unit < 0 || reference->unit >= length_unit_count || own_unit < 0 ||
            own_unit >= length_unit_count || length_units[own_unit].factor == 0.0 ||
            length_units[reference->unit].factor == 0.0) {
            set_gblerr(ErrorCode::geographic);
            return;
        }
        ratio = length_units[reference->unit].factor / length_units[own_unit].factor;
    } else {
        return;
    }
    ObjectId scale_id = 0;
    ScaleRecord* scale = cre_obj<ScaleRecord>(&scale_id);
    if (!scale) return;
    scale->factor_x = ratio;
    scale->factor_y = ratio;
    scale->factor_z = 1.0;
    reference->unit = own_unit;
    reference->pre_transform = scale_id;
    reference->pre_op = op_scale;
}

} // namespace norvanta
