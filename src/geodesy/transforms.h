// Coordinate operations and chains: the 33 numbered operations (cartesian
// datum work, geographic <-> cartesian, the projections), the chains that
// bring a GeoReference's coordinates to WGS 84, the projected systems' set-up,
// the UTM and plate carree helpers and the distance of the track tools.
//
// A point is three doubles changed in place. Every operation is bound to one
// record (a DatumShift, a Datum, a ProjectedSystem...) and has a forward and
// an inverse function in two tables indexed by operation number.
#pragma once

#include <cstdint>

#include "core/mobj.h"
#include "core/object_types.h"
#include "geodesy/tables.h"

namespace norvanta {

// ---- Operation numbers ----

inline constexpr int32_t op_count = 33;
inline constexpr int32_t op_none = 0;
inline constexpr int32_t op_pixel_scale = 1;
inline constexpr int32_t op_scale = 2;
inline constexpr int32_t op_affine = 3;
inline constexpr int32_t op_matrix = 4;
inline constexpr int32_t op_type44 = 5;
inline constexpr int32_t op_chain = 6;
inline constexpr int32_t op_meridian = 7;
inline constexpr int32_t op_translation = 8;
inline constexpr int32_t op_seven = 9;
inline constexpr int32_t op_ten = 10;
inline constexpr int32_t op_to_cartesian = 11;
inline constexpr int32_t op_to_geographic = 12;
inline constexpr int32_t op_first_projection = 13;
inline constexpr int32_t op_lambert = 13;
inline constexpr int32_t op_polar_stereographic = 14;
inline constexpr int32_t op_mercator = 15;
inline constexpr int32_t op_transverse_mercator = 16;
inline constexpr int32_t op_equirectangular = 17;
inline constexpr int32_t op_gauss_oblique_mercator_origin = 18;
inline constexpr int32_t op_gauss_schreiber = 19;
inline constexpr int32_t op_gauss_stereographic = 20;
inline constexpr int32_t op_gauss_conic = 21;
inline constexpr int32_t op_gauss_oblique_mercator = 22;
inline constexpr int32_t op_last_projection = 22;
// A projection's inverse number is its forward number plus this.
inline constexpr int32_t op_projection_inverse_offset = 10;

// ---- Records bound to the image operations ----

// A tie point of a georeferenced image: a raster point and its model point.
struct GeoTiePoint {
    ObjectId id;
    ObjectType type;
    double raster_x; // pixels
    double raster_y; // pixels
    double raster_z; // pixels
    double model_x;  // system units
    double model_y;  // system units
    double model_z;  // system units
    static constexpr ObjectType object_type = ObjectType::GeoTiePoint;
};

// Size of a pixel in system units, with the tie point it goes with (op 1).
struct GeoPixelScale {
    ObjectId id;
    ObjectType type;
    double scale_x;     // system units per pixel
    double scale_y;     // system units per pixel
    double scale_z;     // system units per pixel
    ObjectId tie_point; // GeoTiePoint
    static constexpr ObjectType object_type = ObjectType::GeoPixelScale;
};

inline constexpr int affine_matrix_size = 12; // 3 rows of 4, row by row
inline constexpr int linear_matrix_size = 4;  // 2 rows of 2, row by row

// A 3 by 4 affine map (op 3) and its inverse, stored whole.
struct GeoTransform {
    ObjectId id;
    ObjectType type;
    double forward[affine_matrix_size];
    double inverse[affine_matrix_size];
    static constexpr ObjectType object_type = ObjectType::GeoTransform;
};

// A 2 by 2 linear map of x and y (op 4) and its inverse, stored whole.
struct LinearMatrix {
    ObjectId id;
    ObjectType type;
    double forward[linear_matrix_size];
    double inverse[linear_matrix_size];
    static constexpr ObjectType object_type = ObjectType::GeodesyCompanion47;
};

// ---- Chains ----

// A chain of operations, applied first to last (forward) or last to first
// with the inverse functions. The three arrays are owned and freed by the
// type's destructor.
struct CoordBuffer {
    ObjectId id;
    ObjectType type;
    int32_t count;     // entries in use
    int32_t capacity;  // entries allocated
    ObjectId* objects; // owned; the id each entry is bound to
    int32_t* ops;      // owned; operation numbers
    void** addresses;  // owned; the bound records
    static constexpr ObjectType object_type = ObjectType::CoordBuffer;
};

// Registers CoordBuffer (with its destructor) and the image records.
void transforms_register_types();

using OpFunction = void (*)(void* object, double& x, double& y, double& z);

// One operation on one point; op outside 0..32 is error 12.
void op_apply(ObjectId object, int32_t op, double& x, double& y, double& z);
void op_apply_inverse(ObjectId object, int32_t op, double& x, double& y, double& z);

// The chain from a GeoReference's coordinates to WGS 84 geographic; 0 (and
// no error) when none is needed.
void make_chain(ObjectId georeference, ObjectId& out_chain);
// The general form: with target_projected set, the chain ends in that
// system (on its Datum) instead of WGS 84 geographic.
void make_chain_to(ObjectId georeference, ObjectId target_projected, ObjectId& out_chain);
void chain_apply(ObjectId chain, double& x, double& y, double& z);
void chain_apply_inverse(ObjectId chain, double& x, double& y, double& z);

// ---- Projected systems ----

// values: longitude and latitude of origin (angle_unit), scale factor, false
// easting and northing (length_unit), extra1..extra3 (raw). An unlisted
// method is error 13 and leaves no record.
void projected_create(const char* name, int method, const double values[8], int length_unit,
                      int angle_unit, ObjectId datum, int code, ObjectId& out_id);
// For a record filled by hand: gives it the next free code and runs the set-up.
void projected_finish(ObjectId id, int angle_unit);
// Runs the method's set-up on a record; error 13 for an unlisted method.
void projected_setup(ProjectedSystem& system, int angle_unit);
void find_projected_equal(ObjectId id, ObjectId& out_found);
bool projected_equals(const ProjectedSystem& first, const ProjectedSystem& second);
void utm_system(ObjectId datum, int zone, bool south, ObjectId& out_id);
void utm_for_point(ObjectId datum, double longitude_deg, double latitude_deg, ObjectId& out_id);
// latitude in the Datum's angle unit.
void plate_carree_system(ObjectId datum, double latitude, ObjectId& out_id);

// Great-circle distance in metres, angles in the Datum's unit.
double distance(ObjectId datum, double longitude1, double latitude1, double longitude2,
                double latitude2);

// ---- Ellipsoid helpers (radians and metres) ----

struct EllipsoidShape {
    double semi_major;           // metres
    double eccentricity_squared; // e²
    double eccentricity;         // e
};
EllipsoidShape ellipsoid_shape(const Ellipsoid& ellipsoid);

double radius_prime_vertical(const EllipsoidShape& shape, double latitude); // N
double radius_meridian(const EllipsoidShape& shape, double latitude);       // M
double isometric_latitude(const EllipsoidShape& shape, double latitude);    // L
double conformal_factor(const EllipsoidShape& shape, double latitude);      // T
double latitude_from_isometric(const EllipsoidShape& shape, double isometric);

} // namespace norvanta
