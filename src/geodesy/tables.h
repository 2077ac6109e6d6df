// The geodetic dictionary: units, ellipsoids, prime meridians, datums, shifts
// between datums and projected systems, read once at start from the ten table
// files of the system directory and kept in the ObjectStore with their indexes.
#pragma once

#include <cstdint>

#include "core/mobj.h"
#include "core/object_types.h"

namespace norvanta {

// ---- Units ----

inline constexpr int angle_unit_count = 13;
inline constexpr int length_unit_count = 48;
// Units that a table row may name; the rest exist only for internal use.
inline constexpr int last_row_angle_unit = 11;
inline constexpr int last_row_length_unit = 46;
// The unit numbers the rest of the program names.
inline constexpr int angle_unit_radian = 0;
inline constexpr int angle_unit_degree = 1;
inline constexpr int angle_unit_second = 4;
inline constexpr int length_unit_metre = 0;

struct UnitRow {
    const char* english; // null where the unit has no label
    const char* french;  // null where the unit has no label
    double factor;       // angle: units per radian; length: metres per unit
};

// clang-format off
inline constexpr UnitRow angle_units[] = {
    {"Radian", "Radian", 1.0},
    {"Degree", "Degré", 57.29577951308232},
    {"Degree Minute Second", "Degré Minute Seconde", 206264.80624709636},
    {"Grad (or Gon)", "Grade (ou Gon)", 63.66197723675813},
    {"Second", "Seconde", 206264.80624709636},
    {"Minute", "Minute", 3437.7467707849396},
    {"Micro-radian", "Micro-radian", 1000000.0},
    {"Degree Minute", "Degré Minute", 3437.7467707849396},
    {"Centesimal minute", "Minute centésimale", 6366.197723675814},
    {"Centesimal second", "Seconde centésimale", 636619.7723675814},
    {"Mil6400", "Mil6400", 1018.5916357881301},
    {nullptr, nullptr, 206264.80624709636},
    {nullptr, nullptr, 1.0},
};

inline constexpr UnitRow length_units[] = {
    {"Meter", "Mètre", 1.0},
    {"Foot", "Foot", 0.3048},
    {"International Nautical Mile", "Mile Nautique international", 1852.0},
    {"Kilometer", "Kilomètre", 1000.0},
    {"Fathom", "Fathom", 1.8288},
    {"Sears Yard", "Yard Sears", 0.9143984146160287},
    {"US Survey Foot", "Foot US Survey", 0.30480060960121924},
    {"Modified american Foot", "Foot modifié americain", 0.304812252984506},
    {"Clarke Foot", "Foot Clarke", 0.3047972651150996},
    {"Indian Foot", "Foot indien", 0.3047995179900423},
    {"Link", "Link", 0.20116619497596572},
    {"British link (Benoit 1895 B)", "British link (Benoit 1895 B)", 0.2011678249437587},
    {"British link (Sears 1922)", "British link (Sears 1922)", 0.2011676512155263},
    {"British chain (Benoit 1895 B)", "British chain (Benoit 1895 B)", 20.116782494375872},
    {"British chain (Sears 1922)", "British chain (Sears 1922)", 20.116765121552632},
    {"Indian Yard", "Yard indien", 0.9143985539701268},
    {"German Legal Meter", "German Legal Meter", 1.0000135965},
    {"US Survey Chain", "Chain US Survey", 20.11684023368047},
    {"US Survey Link", "Link US Survey", 0.2011684023368047},
    {"US Survey Mile", "Mile US Survey", 1609.3472186944375},
    {"Clarke Yard", "Yard Clarke", 0.9143917953452987},
    {"Clarke Chain", "Chain Clarke", 20.11661949759657},
    {"Clarke Link", "Link Clarke", 0.20116619497596572},
    {nullptr, nullptr, 0.9143984146160287},
    {nullptr, nullptr, 0.3047994715386762},
    {nullptr, nullptr, 20.116765121552632},
    {nullptr, nullptr, 0.2011676512155263},
    {nullptr, nullptr, 0.9143992},
    {nullptr, nullptr, 0.3047997333333333},
    {nullptr, nullptr, 20.1167824},
    {nullptr, nullptr, 0.201167824},
    {nullptr, nullptr, 0.9143992042898124},
    {nullptr, nullptr, 0.30479973476327077},
    {nullptr, nullptr, 20.116782494375872},
    {nullptr, nullptr, 0.2011678249437587},
    {nullptr, nullptr, 0.30480083333333335},
    {nullptr, nullptr, 0.30479951024814694},
    {nullptr, nullptr, 0.30479841},
    {nullptr, nullptr, 0.3047996},
    {nullptr, nullptr, 0.3047995},
    {nullptr, nullptr, 0.9143985307444408},
    {nullptr, nullptr, 0.91439523},
    {nullptr, nullptr, 0.9143988},
    {nullptr, nullptr, 0.9143985},
    {nullptr, nullptr, 1609.344},
    {nullptr, nullptr, 0.3047997101815088},
    {nullptr, nullptr, 0.3048007491},
    {nullptr, nullptr, 0.0}, // never valid
};
// clang-format on
static_assert(sizeof(angle_units) / sizeof(angle_units[0]) == angle_unit_count);
static_assert(sizeof(length_units) / sizeof(length_units[0]) == length_unit_count);

// ---- Records ----

struct Ellipsoid {
    ObjectId id;
    ObjectType type;
    int32_t code;
    char* name;                  // owned
    double semi_major;           // metres
    double inverse_flattening;   // 0 when the row gave the semi-minor axis
    double semi_minor;           // metres; 0 when the row gave the inverse flattening
    double eccentricity_squared; // e²
    static constexpr ObjectType object_type = ObjectType::Ellipsoid;
};

struct PrimeMeridian {
    ObjectId id;
    ObjectType type;
    int32_t code;
    char* name;         // owned
    double longitude;   // radians east of Greenwich
    int32_t angle_unit; // the unit the row used
    static constexpr ObjectType object_type = ObjectType::PrimeMeridian;
};

struct Datum {
    ObjectId id;
    ObjectType type;
    int32_t code;
    char* name;                      // owned
    int32_t angle_unit;              // of the datum's geographic coordinates
    ObjectId ellipsoid;              // Ellipsoid
    ObjectId prime_meridian;         // PrimeMeridian
    int32_t extra;                   // 0 from the table files
    double prime_meridian_longitude; // radians, copied from the PrimeMeridian
    Ellipsoid* ellipsoid_record;     // direct pointer to the Ellipsoid
    static constexpr ObjectType object_type = ObjectType::Datum;
};

// Operation numbers of a DatumShift (the op numbers of the transforms).
inline constexpr int32_t shift_op_none = 0;
inline constexpr int32_t shift_op_meridian = 7;
inline constexpr int32_t shift_op_translation = 8;
inline constexpr int32_t shift_op_seven = 9;
inline constexpr int32_t shift_op_ten = 10;

struct DatumShift {
    ObjectId id;
    ObjectType type;
    int32_t code;
    int32_t length_unit;   // of the translations as given and of the cartesian points;
                           // for the meridian kind, the source angle unit
    int32_t to_angle_unit; // meridian kind: the target angle unit
    int32_t op;            // 0 none, 7 meridian, 8 three, 9 seven, 10 ten parameters
    ObjectId source;       // Datum
    ObjectId target;       // Datum
    int32_t cost;          // path weight
    double translation_x;  // metres; meridian kind: the difference in radians
    double translation_y;  // metres
    double translation_z;  // metres
    double rotation_x;     // radians
    double rotation_y;     // radians
    double rotation_z;     // radians
    double scale;          // plain ratio minus 1
    double pivot_x;        // metres
    double pivot_y;        // metres
    double pivot_z;        // metres
    ObjectId inverse;      // DatumShift; 0 until made
    static constexpr ObjectType object_type = ObjectType::DatumShift;
};

struct ProjectedSystem {
    ObjectId id;
    ObjectType type;
    int32_t code;
    char* name; // owned
    int32_t length_unit;
    int32_t method;          // the number used in the table files
    int32_t op;              // the operation the method selects
    ObjectId datum;          // Datum
    double longitude_origin; // radians
    double latitude_origin;  // radians
    double false_easting;    // metres
    double false_northing;   // metres
    double scale_factor;     // ratio
    double eccentricity;     // sqrt of the Ellipsoid's e²
    double derived1;         // filled by the method's set-up
    double derived2;         // filled by the method's set-up
    double derived3;         // filled by the method's set-up
    double derived4;         // filled by the method's set-up
    double extra1;           // raw row value until a set-up converts it
    double extra2;           // raw row value until a set-up converts it
    double extra3;           // raw row value until a set-up converts it
    Datum* datum_record;     // direct pointer to the Datum
    static constexpr ObjectType object_type = ObjectType::ProjectedSystem;
};

struct NameAlias {
    ObjectId id;
    ObjectType type;
    int32_t kind; // the ObjectType named, 35 to 39
    int32_t code; // of the object named
    int32_t list; // naming scheme
    char* text;   // owned
    static constexpr ObjectType object_type = ObjectType::NameAlias;
};

// Naming schemes of the alias files.
inline constexpr int32_t alias_scheme_geotiff = 1;
inline constexpr int32_t alias_scheme_mapinfo = 2;
inline constexpr int32_t alias_scheme_nmea = 4;
inline constexpr int32_t alias_scheme_trackmaker = 5;
inline constexpr int32_t alias_scheme_ozi = 6;

inline constexpr int32_t georeference_geographic = 1;
inline constexpr int32_t georeference_projected = 2;

struct GeoReference {
    ObjectId id;
    ObjectType type;
    int32_t kind;           // 1 geographic, 2 projected
    ObjectId datum;         // Datum, for kind 1
    ObjectId projected;     // ProjectedSystem, for kind 2
    ObjectId pre_transform; // object of the step to the system's own units, 0 for none
    int32_t pre_op;         // operation number of that step
    int32_t unit;           // angle unit (kind 1) or length unit (kind 2) of stored coordinates
    static constexpr ObjectType object_type = ObjectType::GeoReference;
};

// The scale step of a chain (op 2): x and y multiplied by the two factors.
struct ScaleRecord {
    ObjectId id;
    ObjectType type;
    double factor_x; // ratio
    double factor_y; // ratio
    double factor_z; // ratio, 1.0 as made here
    static constexpr ObjectType object_type = ObjectType::GeodesyCompanion57;
};

// ---- The dictionary ----

// The Datum of code 214 (WGS 84), looked up once at start; 0 before.
extern ObjectId wgs84_datum;

// Registers the geodesy record types with the store; before geodesy_load.
void geodesy_register_types();
// Reads the ten files of the system directory; on failure gblerr is set.
void geodesy_load();
// The same from another directory (ending in a separator): the tests' tables.
void geodesy_load_from(const char* directory);
// Deletes every dictionary record and index, for a test that loads again.
void geodesy_unload();
// Looks up the Datum of code 214 into wgs84_datum.
void geodesy_find_wgs84();

ObjectId find_by_code(ObjectType type, int32_t code);
int32_t next_code(ObjectType type);
ObjectId find_alias(ObjectType type, int32_t scheme, const char* text);
const char* get_alias(ObjectType type, int32_t scheme, int32_t code);
ObjectId find_ellipsoid(double semi_major, double inverse_flattening);
ObjectId find_meridian(double longitude, int32_t angle_unit);
// parameters: metres and seconds of arc.
ObjectId find_datum(ObjectId ellipsoid, ObjectId prime_meridian, int parameter_count,
                    const double* parameters);
bool shift_equals(ObjectId shift, const double parameters[10], int32_t length_unit,
                  int32_t angle_unit, int invert);
// Shortest path of shifts from one Datum to another; out_shift null only
// tests that a path exists. False on failure.
bool find_shift(ObjectId from, ObjectId to, ObjectId* out_shift, int32_t* out_cost);
// The inverse of a shift, made on first need and remembered at both ends.
ObjectId shift_inverse(ObjectId shift);

void make_default_georeference(ObjectId& out_id);
// ellipsoid: semi-major (m) and inverse flattening; shift: tx, ty, tz (m).
void make_custom_datum(const double ellipsoid_parameters[2], const double shift_parameters[3],
                       ObjectId& out_datum);
void georeference_take_unit(ObjectId id);
void georeference_fix_units(ObjectId id);

// The OrderedSets over the dictionary, made by the first load.
struct GeodesyIndexes {
    ObjectId by_code[5]; // types 35 to 39, by code
    ObjectId by_name[5]; // types 35 to 39, by name (type 36 has none: 0)
    ObjectId ellipsoid_by_semi_major;
    ObjectId datum_by_ellipsoid;
    ObjectId shift_by_source;
    ObjectId shift_by_target;
    ObjectId projected_by_datum;
    ObjectId alias_by_text;
    ObjectId alias_by_code;
};
extern GeodesyIndexes geodesy_indexes;
// Adds a record made outside the loader to every index of its type. The
// indexes read their keys from the records, so the keys (code, name, datum...)
// are set before the call and never change afterwards.
void geodesy_index_add(ObjectType type, ObjectId id);

} // namespace norvanta
