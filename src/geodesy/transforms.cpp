// Coordinate operations, chains and projections. Every operation takes the
// record it is bound to and a point (x, y, z) changed in place; the two
// tables below give each operation number its forward and inverse function.
// Projections take geographic coordinates in their Datum's angle unit and
// give grid coordinates in their own length unit.
#include "geodesy/transforms.h"

#include <cmath>
#include <cstdio>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double half_pi = pi / 2;
constexpr double quarter_pi = pi / 4;
// Within this of the pole (or of zero) an angle counts as on it.
constexpr double pole_tolerance = 2e-14;
// The largest latitude that spherical Mercator still projects.
constexpr double mercator_latitude_limit = 1.5707963267948766;
constexpr int geographic_iteration_limit = 11;
constexpr double geographic_tangent_tolerance = 1e-8;
constexpr double isometric_tolerance = 1e-9;
constexpr int isometric_iteration_limit = 50;
constexpr double footpoint_tolerance = 1e-10;
constexpr int footpoint_iteration_limit = 100;
constexpr int highest_method = 47;
constexpr int wgs84_datum_code = 214;
// UTM, in degrees and metres.
constexpr double utm_scale_factor = 0.9996;
constexpr double utm_false_easting_m = 500000.0;
constexpr double utm_false_northing_south_m = 1e7;
constexpr int utm_zone_width_deg = 6;
constexpr int utm_zone_offset_deg = 183;
constexpr double degrees_per_radian = 180.0 / pi;
constexpr int utm_method = 1;
constexpr int plate_carree_method = 17;
constexpr double plate_carree_latitude_tolerance = 0.02; // radians
constexpr std::size_t system_name_capacity = 256;
// Tolerances of projected_equals.
constexpr double equal_angle_tolerance = 1e-6;
constexpr double equal_extra3_tolerance = 1e-5;
constexpr double equal_scale_tolerance = 1e-5;
constexpr double equal_offset_tolerance_m = 0.01;

bool on_pole(double latitude) {
    return std::fabs(std::fabs(latitude) - half_pi) <= pole_tolerance;
}

double angle_factor(int32_t unit) {
    return (unit >= 0 && unit < angle_unit_count) ? angle_units[unit].factor : 1.0;
}
double length_factor(int32_t unit) {
    return (unit >= 0 && unit < length_unit_count) ? length_units[unit].factor : 1.0;
}

// ---- Ellipsoid of a system ----

EllipsoidShape shape_of(const ProjectedSystem& system) {
    const Ellipsoid* ellipsoid =
        system.datum_record ? system.datum_record->ellipsoid_record : nullptr;
    if (!ellipsoid) return {0.0, 0.0, 0.0};
    return ellipsoid_shape(*ellipsoid);
}

int32_t datum_angle_unit(const ProjectedSystem& system) {
    return system.datum_record ? system.datum_record->angle_unit : angle_unit_radian;
}

// Geographic input of a projection: Datum unit to radians.
void take_geographic(const ProjectedSystem& system, double& longitude, double& latitude) {
    const double factor = angle_factor(datum_angle_unit(system));
    longitude /= factor;
    latitude /= factor;
}
void give_geographic(const ProjectedSystem& system, double& longitude, double& latitude) {
    const double factor = angle_factor(datum_angle_unit(system));
    longitude *= factor;
    latitude *= factor;
}
// Grid output of a projection: metres to the system's unit.
void give_grid(const ProjectedSystem& system, double& x, double& y) {
    const double factor = length_factor(system.length_unit);
    x /= factor;
    y /= factor;
}
void take_grid(const ProjectedSystem& system, double& x, double& y) {
    const double factor = length_factor(system.length_unit);
    x *= factor;
    y *= factor;
}

double signed_huge(double sign) {
    return sign < 0 ? -HUGE_VAL : HUGE_VAL;
}

// ---- The Gauss sphere ----
// derived1 c, derived2 R, derived3 K, derived4 chi0 (some methods reuse derived4).

void gauss_setup(ProjectedSystem& system, const EllipsoidShape& shape) {
    const double e2 = shape.eccentricity_squared;
    const double phi0 = system.latitude_origin;
    const double cos_phi0 = std::cos(phi0);
    const double sin_phi0 = std::sin(phi0);
    const double c = std::sqrt(1 + e2 * cos_phi0 * cos_phi0 * cos_phi0 * cos_phi0 / (1 - e2));
    const double chi0 = std::asin(sin_phi0 / c);
    system.derived1 = c;
    system.derived4 = chi0;
    system.derived3 =
        std::log(std::tan(quarter_pi + chi0 / 2)) - c * isometric_latitude(shape, phi0);
    system.derived2 =
        std::sqrt(1 - e2) * system.scale_factor * shape.semi_major / (1 - e2 * sin_phi0 * sin_phi0);
}

// Geodetic (radians) to the sphere: longitude becomes lambda', latitude chi.
void gauss_step(const ProjectedSystem& system, const EllipsoidShape& shape, double center,
                double& longitude, double& latitude) {
    const double c = system.derived1;
    longitude = (longitude - center) * c;
    if (on_pole(latitude)) return;
    latitude = 2 * std::atan(std::exp(c * isometric_latitude(shape, latitude) + system.derived3)) -
               half_pi;
}

void gauss_step_inverse(const ProjectedSystem& system, const EllipsoidShape& shape, double center,
                        double& longitude, double& latitude) {
    const double c = system.derived1;
    if (!on_pole(latitude)) {
        const double isometric =
            (std::log(std::tan(quarter_pi + latitude / 2)) - system.derived3) / c;
        latitude = latitude_from_isometric(shape, isometric);
    }
    longitude = longitude / c + center;
}

// Spherical Mercator of radius r; false when the latitude is at a pole.
bool sphere_mercator(double r, double longitude, double latitude, double& x, double& y) {
    if (std::fabs(latitude) < mercator_latitude_limit) {
        x = longitude * r;
        y = r * std::log(std::tan(quarter_pi + latitude / 2));
        return true;
    }
    x = 0;
    y = signed_huge(latitude);
    return false;
}

// Its inverse: grid (metres from the false origin) back to the sphere.
void sphere_mercator_inverse(double r, double x, double y, double& longitude, double& latitude) {
    longitude = x / r;
    latitude = 2 * std::atan(std::exp(y / r)) - half_pi;
}

// A point of the sphere as a unit vector: x towards longitude 0 on the
// equator, y towards longitude 90 degrees, z towards the north pole.
struct SpherePoint {
    double x;
    double y;
    double z;
};

SpherePoint sphere_point(double longitude, double latitude) {
    return {std::cos(latitude) * std::cos(longitude), std::cos(latitude) * std::sin(longitude),
            std::sin(latitude)};
}

// Turns the sphere in the plane of two of a point's coordinates, from a
// towards b, by the angle of the given cosine and sine: the turn about the
// third axis. The turn back is the same with the sine negated.
void turn(double& a, double& b, double cos_angle, double sin_angle) {
    const double turned_a = cos_angle * a - sin_angle * b;
    const double turned_b = sin_angle * a + cos_angle * b;
    a = turned_a;
    b = turned_b;
}

// ---- Projection wrappers ----
// A projection's core works in radians and metres; the wrapper is the
// operation: it unpacks the ProjectedSystem, brings the point from the
// Datum's angle unit or the system's length unit and gives the result back
// in the other.

using ProjectCore = void (*)(const ProjectedSystem& s, const EllipsoidShape& shape,
                             double longitude, double latitude, double& x, double& y);
using UnprojectCore = void (*)(const ProjectedSystem& s, const EllipsoidShape& shape, double x,
                               double y, double& longitude, double& latitude);

template <ProjectCore core>
void project(void* object, double& x, double& y, double&) {
    const auto& s = *static_cast<const ProjectedSystem*>(object);
    double longitude = x;
    double latitude = y;
    take_geographic(s, longitude, latitude);
    core(s, shape_of(s), longitude, latitude, x, y);
    give_grid(s, x, y);
}

template <UnprojectCore core>
void unproject(void* object, double& x, double& y, double&) {
    const auto& s = *static_cast<const ProjectedSystem*>(object);
    take_grid(s, x, y);
    double longitude = 0;
    double latitude = 0;
    core(s, shape_of(s), x, y, longitude, latitude);
    give_geographic(s, longitude, latitude);
    x = longitude;
    y = latitude;
}

// The projections of the Gauss sphere: their cores take and give lambda' and
// chi, the sphere's longitude about a central meridian (the origin's but for
// op 22) and its latitude.
using SphereProjectCore = void (*)(const ProjectedSystem& s, double lambda, double chi, double& x,
                                   double& y);
using SphereUnprojectCore = void (*)(const ProjectedSystem& s, double x, double y, double& lambda,
                                     double& chi);

template <SphereProjectCore core,
          double ProjectedSystem::*center = &ProjectedSystem::longitude_origin>
void on_gauss_sphere(const ProjectedSystem& s, const EllipsoidShape& shape, double longitude,
                     double latitude, double& x, double& y) {
    gauss_step(s, shape, s.*center, longitude, latitude);
    core(s, longitude, latitude, x, y);
}

template <SphereUnprojectCore core,
          double ProjectedSystem::*center = &ProjectedSystem::longitude_origin>
void from_gauss_sphere(const ProjectedSystem& s, const EllipsoidShape& shape, double x, double y,
                       double& longitude, double& latitude) {
    core(s, x, y, longitude, latitude);
    gauss_step_inverse(s, shape, s.*center, longitude, latitude);
}

// ---- Transverse Mercator ----
// extra1 a, extra2 A0, extra3 A2, derived3 A4, derived4 A6, derived1 e'2, derived2 M0.

double meridian_arc(const ProjectedSystem& s, double phi) {
    return s.extra1 * (s.extra2 * phi - s.extra3 * std::sin(2 * phi) +
                       s.derived3 * std::sin(4 * phi) - s.derived4 * std::sin(6 * phi));
}

void setup_transverse_mercator(ProjectedSystem& s, const EllipsoidShape& shape, int) {
    const Ellipsoid* ellipsoid = s.datum_record->ellipsoid_record;
    const double e2 = shape.eccentricity_squared;
    if (ellipsoid->inverse_flattening == 0.0) {
        const double b = ellipsoid->semi_minor;
        s.derived1 = (shape.semi_major * shape.semi_major - b * b) / (b * b);
    } else {
        const double f = ellipsoid->inverse_flattening;
        s.derived1 = (f / (f - 1)) * (f / (f - 1)) * e2;
    }
    const double e4 = e2 * e2;
    const double e6 = e4 * e2;
    s.extra1 = shape.semi_major;
    s.extra2 = 1 - e2 / 4 - 3 * e4 / 64 - 5 * e6 / 256;
    s.extra3 = 3 * e2 / 8 + 3 * e4 / 32 + 45 * e6 / 1024;
    s.derived3 = 15 * e4 / 256 + 45 * e6 / 1024;
    s.derived4 = 35 * e6 / 3072;
    s.derived2 = std::fabs(s.latitude_origin) <= pole_tolerance
                     ? 0.0
                     : s.scale_factor * meridian_arc(s, s.latitude_origin);
}

// M0 is added here and taken off in the inverse in the same sense, so that a
// non-zero latitude of origin puts the northing 2 M0 away from the usual
// grid. Kept on purpose: coordinates already written by the program follow it.
void transverse_mercator_project(const ProjectedSystem& s, const EllipsoidShape& shape,
                                 double longitude, double phi, double& x, double& y) {
    const double k0 = s.scale_factor;
    if (on_pole(phi)) {
        x = s.false_easting;
        y = k0 * meridian_arc(s, phi) + s.derived2 + s.false_northing;
        return;
    }
    const double lambda = longitude - s.longitude_origin;
    const double c = std::cos(phi);
    const double t = std::tan(phi);
    const double t2 = t * t;
    const double eta2 = s.derived1 * c * c;
    const double n = radius_prime_vertical(shape, phi);
    const double l2 = lambda * lambda;
    const double c2 = c * c;
    x = k0 * (n * c * lambda + n * c * c2 * (1 - t2 + eta2) * lambda * l2 / 6 +
              n * c * c2 * c2 * (5 - 18 * t2 + t2 * t2 + 14 * eta2 - 58 * t2 * eta2) * lambda * l2 *
                  l2 / 120) +
        s.false_easting;
    y = k0 * (meridian_arc(s, phi) + n * t * c2 * l2 / 2 +
              n * t * c2 * c2 * (5 - t2 + 9 * eta2 + 4 * eta2 * eta2) * l2 * l2 / 24 +
              n * t * c2 * c2 * c2 * (61 - 58 * t2 + t2 * t2 + 270 * eta2 - 330 * t2 * eta2) * l2 *
                  l2 * l2 / 720) +
        s.derived2 + s.false_northing;
}

void transverse_mercator_unproject(const ProjectedSystem& s, const EllipsoidShape& shape, double x,
                                   double y, double& longitude, double& latitude) {
    const double k0 = s.scale_factor;
    const double d = (x - s.false_easting) / k0;
    const double m = (y - s.false_northing - s.derived2) / k0;
    double phi1 = 0;
    for (int round = 0; round < footpoint_iteration_limit; ++round) {
        const double next = (m / s.extra1 + s.extra3 * std::sin(2 * phi1) -
                             s.derived3 * std::sin(4 * phi1) + s.derived4 * std::sin(6 * phi1)) /
                            s.extra2;
        const bool settled = std::fabs(next - phi1) < footpoint_tolerance;
        phi1 = next;
        if (settled) break;
    }
    const double n = radius_prime_vertical(shape, phi1);
    const double c = std::cos(phi1);
    const double t = std::tan(phi1);
    const double t2 = t * t;
    const double eta2 = s.derived1 * c * c;
    const double d2 = d * d;
    const double n2 = n * n;
    longitude = d / (n * c) - (1 + 2 * t2 + eta2) * d * d2 / (6 * n * n2 * c) +
                (5 + 6 * eta2 + 28 * t2 + 8 * t2 * eta2 + 24 * t2 * t2) * d * d2 * d2 /
                    (120 * n * n2 * n2 * c) +
                s.longitude_origin;
    latitude = phi1 - (1 + eta2) * t * d2 / (2 * n2) +
               (5 + 3 * t2 + 6 * eta2 - 6 * t2 * eta2 - 3 * eta2 * eta2 - 9 * t2 * eta2 * eta2) *
                   t * d2 * d2 / (24 * n2 * n2) -
               (61 + 90 * t2 + 107 * eta2 + 45 * t2 * t2 - 162 * t2 * eta2 - 45 * t2 * t2 * eta2) *
                   t * d2 * d2 * d2 / (720 * n2 * n2 * n2);
}

constexpr OpFunction transverse_mercator_forward = project<transverse_mercator_project>;
constexpr OpFunction transverse_mercator_inverse = unproject<transverse_mercator_unproject>;

// ---- Lambert Conformal Conic ----
// derived2 n, derived3 rho0 + FN, derived4 F (the rho of T = 1).

void setup_lambert_two(ProjectedSystem& s, const EllipsoidShape& shape, int angle_unit) {
    const double factor = angle_factor(angle_unit);
    s.extra1 /= factor;
    s.extra2 /= factor;
    s.extra3 /= factor;
    s.scale_factor = 0;
    const double phi1 = s.extra1;
    const double phi2 = s.extra2;
    const double m1 = radius_prime_vertical(shape, phi1) * std::cos(phi1);
    const double m2 = radius_prime_vertical(shape, phi2) * std::cos(phi2);
    const double n = (std::log(m2) - std::log(m1)) /
                     (isometric_latitude(shape, phi1) - isometric_latitude(shape, phi2));
    s.derived2 = n;
    s.derived4 = m1 * std::pow(conformal_factor(shape, phi1), n) / n;
    const double rho0 = on_pole(s.latitude_origin)
                            ? 0.0
                            : s.derived4 / std::pow(conformal_factor(shape, s.latitude_origin), n);
    s.derived3 = rho0 + s.false_northing;
    if (s.extra3 != 0) s.longitude_origin += n * s.extra3;
}

void setup_lambert_one(ProjectedSystem& s, const EllipsoidShape& shape, int) {
    const double phi0 = s.latitude_origin;
    const double n = std::sin(phi0);
    const double rho = s.scale_factor * radius_prime_vertical(shape, phi0) / std::tan(phi0);
    s.derived2 = n;
    s.derived3 = rho + s.false_northing;
    s.derived4 = std::pow(conformal_factor(shape, phi0), n) * rho;
}

void lambert_project(const ProjectedSystem& s, const EllipsoidShape& shape, double longitude,
                     double phi, double& x, double& y) {
    const double n = s.derived2;
    if (on_pole(phi)) {
        x = s.false_easting;
        y = phi * n >= 0 ? s.derived3 : signed_huge(-phi);
    } else {
        const double theta = (longitude - s.longitude_origin) * n;
        const double rho = s.derived4 / std::pow(conformal_factor(shape, phi), n);
        x = s.false_easting + rho * std::sin(theta);
        y = s.derived3 - rho * std::cos(theta);
    }
}

void lambert_unproject(const ProjectedSystem& s, const EllipsoidShape& shape, double x, double y,
                       double& longitude, double& latitude) {
    const double n = s.derived2;
    const double sign = n < 0 ? -1.0 : 1.0;
    const double dx = x - s.false_easting;
    const double dy = s.derived3 - y;
    longitude = 0;
    latitude = sign * half_pi;
    if (std::fabs(dy) >= pole_tolerance) {
        const double rho = sign * std::hypot(dx, dy);
        const double theta = std::atan2(sign * dx, sign * dy);
        longitude = theta / n + s.longitude_origin;
        latitude = latitude_from_isometric(shape, std::log(s.derived4 / rho) / n);
    }
}

constexpr OpFunction lambert_forward = project<lambert_project>;
constexpr OpFunction lambert_inverse = unproject<lambert_unproject>;

// ---- Polar Stereographic ----
// derived2 the sign of the pole, derived4 the rho of T = 1.
// Both set-ups and both functions work on sign * latitude, so that a southern
// system is the northern one mirrored.

void setup_polar_pole_scale(ProjectedSystem& s, const EllipsoidShape& shape, int) {
    const double e = shape.eccentricity;
    s.derived2 = s.latitude_origin < 0 ? -1.0 : 1.0;
    s.derived4 = 2 * shape.semi_major * s.scale_factor * std::pow((1 - e) / (1 + e), e / 2) /
                 std::sqrt(1 - shape.eccentricity_squared);
}

void setup_polar_true_scale(ProjectedSystem& s, const EllipsoidShape& shape, int angle_unit) {
    s.extra1 /= angle_factor(angle_unit);
    const double phic = s.extra1;
    s.derived2 = phic < 0 ? -1.0 : 1.0;
    const double sin_phic = std::sin(phic);
    const double m = shape.semi_major * std::cos(phic) /
                     std::sqrt(1 - shape.eccentricity_squared * sin_phic * sin_phic);
    s.derived4 = m * conformal_factor(shape, s.derived2 * phic);
}

void polar_project(const ProjectedSystem& s, const EllipsoidShape& shape, double longitude,
                   double phi, double& x, double& y) {
    const double sign = s.derived2;
    if (on_pole(phi)) {
        x = s.false_easting;
        y = phi * sign > 0 ? s.false_northing : -sign * HUGE_VAL;
    } else {
        const double rho = s.derived4 / conformal_factor(shape, sign * phi);
        const double lambda = longitude - s.longitude_origin;
        x = s.false_easting + rho * std::sin(lambda);
        y = s.false_northing - sign * rho * std::cos(lambda);
    }
}

void polar_unproject(const ProjectedSystem& s, const EllipsoidShape& shape, double x, double y,
                     double& longitude, double& latitude) {
    const double sign = s.derived2;
    const double dx = x - s.false_easting;
    const double dy = y - s.false_northing;
    const double rho = std::hypot(dx, dy);
    longitude = s.longitude_origin;
    latitude = sign * half_pi;
    if (rho > 0) {
        longitude = std::atan2(dx, -sign * dy) + s.longitude_origin;
        latitude = sign * latitude_from_isometric(shape, std::log(s.derived4 / rho));
    }
}

constexpr OpFunction polar_forward = project<polar_project>;
constexpr OpFunction polar_inverse = unproject<polar_unproject>;

// ---- Mercator ----
// derived2 the radius of the grid, derived4 L at the latitude of origin. The
// northing counts from the latitude of origin, which for method 42 is also
// the standard parallel, not from the equator. Kept on purpose: grids already
// written by the program count so.

void setup_mercator(ProjectedSystem& s, const EllipsoidShape& shape, int, bool from_parallel) {
    const double phi0 = s.latitude_origin;
    const double sin_phi0 = std::sin(phi0);
    const double cos_phi0 = std::cos(phi0);
    if (from_parallel) {
        s.scale_factor = cos_phi0 / std::sqrt(1 - shape.eccentricity_squared * sin_phi0 * sin_phi0);
        // N cos phi0 already is a k0 at this parallel: no second factor.
        s.derived2 = radius_prime_vertical(shape, phi0) * cos_phi0;
    } else {
        s.derived2 = radius_prime_vertical(shape, phi0) * cos_phi0 * s.scale_factor;
    }
    s.derived4 = isometric_latitude(shape, phi0);
}

void setup_mercator_scale(ProjectedSystem& s, const EllipsoidShape& shape, int unit) {
    setup_mercator(s, shape, unit, false);
}
void setup_mercator_parallel(ProjectedSystem& s, const EllipsoidShape& shape, int unit) {
    setup_mercator(s, shape, unit, true);
}

void mercator_project(const ProjectedSystem& s, const EllipsoidShape& shape, double longitude,
                      double phi, double& x, double& y) {
    if (on_pole(phi)) {
        x = s.false_easting;
        y = signed_huge(phi);
    } else {
        x = (longitude - s.longitude_origin) * s.derived2 + s.false_easting;
        y = (isometric_latitude(shape, phi) - s.derived4) * s.derived2 + s.false_northing;
    }
}

void mercator_unproject(const ProjectedSystem& s, const EllipsoidShape& shape, double x, double y,
                        double& longitude, double& latitude) {
    longitude = (x - s.false_easting) / s.derived2 + s.longitude_origin;
    latitude = latitude_from_isometric(shape, (y - s.false_northing) / s.derived2 + s.derived4);
}

constexpr OpFunction mercator_forward = project<mercator_project>;
constexpr OpFunction mercator_inverse = unproject<mercator_unproject>;

// ---- Equirectangular ----
// derived2 the parallel's radius, derived3 the meridian's; no false origin.

void setup_equirectangular(ProjectedSystem& s, const EllipsoidShape& shape, int) {
    const double phi0 = s.latitude_origin;
    s.derived2 = radius_prime_vertical(shape, phi0) * std::cos(phi0);
    s.derived3 = radius_meridian(shape, phi0);
}

void setup_equirectangular_equator(ProjectedSystem& s, const EllipsoidShape& shape, int unit) {
    s.latitude_origin = 0;
    setup_equirectangular(s, shape, unit);
}

void equirectangular_project(const ProjectedSystem& s, const EllipsoidShape&, double longitude,
                             double phi, double& x, double& y) {
    x = (longitude - s.longitude_origin) * s.derived2;
    y = phi * s.derived3;
}

void equirectangular_unproject(const ProjectedSystem& s, const EllipsoidShape&, double x, double y,
                               double& longitude, double& latitude) {
    longitude = x / s.derived2 + s.longitude_origin;
    latitude = y / s.derived3;
}

constexpr OpFunction equirectangular_forward = project<equirectangular_project>;
constexpr OpFunction equirectangular_inverse = unproject<equirectangular_unproject>;

// ---- Gauss sphere projections ----

void setup_gauss(ProjectedSystem& s, const EllipsoidShape& shape, int) {
    gauss_setup(s, shape);
}

void setup_gauss_unit_scale(ProjectedSystem& s, const EllipsoidShape& shape, int angle_unit) {
    s.scale_factor = 1.0;
    s.extra1 /= angle_factor(angle_unit);
    s.extra2 /= angle_factor(angle_unit);
    gauss_setup(s, shape);
}

void setup_gauss_schreiber(ProjectedSystem& s, const EllipsoidShape& shape, int) {
    gauss_setup(s, shape);
    s.extra1 = s.false_northing - s.derived2 * s.derived4;
}

// Method 44: the cone on the sphere with a pseudo standard parallel S0.
// derived1 c, derived3 K, derived4 n, derived2 the rho of S = 0 scaled.
void setup_gauss_conic(ProjectedSystem& s, const EllipsoidShape& shape, int angle_unit) {
    gauss_setup(s, shape);
    s.extra1 /= angle_factor(angle_unit);
    s.extra2 /= angle_factor(angle_unit);
    const double e2 = shape.eccentricity_squared;
    const double sin_phi0 = std::sin(s.latitude_origin);
    const double s0 = s.extra2;
    const double n = std::sin(s0);
    s.derived4 = n;
    s.derived2 = std::pow(std::tan(quarter_pi + s0 / 2), n) * std::sqrt(1 - e2) * s.scale_factor *
                 shape.semi_major / ((1 - e2 * sin_phi0 * sin_phi0) * std::tan(s0));
}

// Op 22's set-up. The central line passes through the origin with the given
// azimuth; on the Gauss sphere that great circle crosses the equator at some
// longitude, where its azimuth is the angle the forward function turns by.
// derived4 takes the longitude of that crossing, extra1 the azimuth there,
// extra3 the u of the origin so that the grid is centred on it.
void setup_gauss_oblique_mercator(ProjectedSystem& s, const EllipsoidShape& shape, int angle_unit,
                                  bool rectified_given) {
    const double factor = angle_factor(angle_unit);
    s.extra1 /= factor;
    if (rectified_given)
        s.extra2 /= factor;
    else
        s.extra2 = s.extra1;
    gauss_setup(s, shape);
    const double chi0 = s.derived4;
    const double azimuth = s.extra1;
    // Normal of the central great circle, origin at longitude 0 of the sphere.
    const double normal_x = -std::sin(chi0) * std::sin(azimuth);
    const double normal_y = -std::cos(azimuth);
    const double normal_z = std::cos(chi0) * std::sin(azimuth);
    const double crossing = std::atan2(normal_x, -normal_y);
    const double turned_y = -normal_x * std::sin(crossing) + normal_y * std::cos(crossing);
    s.extra1 = std::atan2(normal_z, -turned_y);
    s.derived4 = s.longitude_origin + crossing / s.derived1;
    // The origin on the sphere, seen from the crossing: its u along the line.
    const double alpha = s.extra1;
    const double along = std::atan2(std::sin(chi0) * std::cos(alpha) -
                                        std::sin(crossing) * std::cos(chi0) * std::sin(alpha),
                                    std::cos(crossing) * std::cos(chi0));
    s.extra3 = s.derived2 * along;
}

void setup_gauss_oblique_azimuth(ProjectedSystem& s, const EllipsoidShape& shape, int unit) {
    setup_gauss_oblique_mercator(s, shape, unit, false);
}
void setup_gauss_oblique_rectified(ProjectedSystem& s, const EllipsoidShape& shape, int unit) {
    setup_gauss_oblique_mercator(s, shape, unit, true);
}

void setup_nothing_extra(ProjectedSystem& s, const EllipsoidShape&, int) {
    s.derived3 = s.extra1;
}

// Op 18: the sphere turned so that the origin lies on its equator, then Mercator.
// The forward turn is the method's closed form, which takes the turned
// longitude from its sine; the way back turns the unit vector.
void gauss_oblique_origin_project(const ProjectedSystem& s, double lambda, double chi, double& x,
                                  double& y) {
    const double chi0 = s.derived4;
    const double turned_chi = std::asin(std::sin(chi) * std::cos(chi0) -
                                        std::cos(chi) * std::sin(chi0) * std::cos(lambda));
    const double turned_lambda = std::asin(std::sin(lambda) * std::cos(chi) / std::cos(turned_chi));
    sphere_mercator(s.derived2, turned_lambda, turned_chi, x, y);
    x += s.false_easting;
    y += s.false_northing;
}

void gauss_oblique_origin_unproject(const ProjectedSystem& s, double x, double y, double& lambda,
                                    double& chi) {
    double turned_lambda = 0;
    double turned_chi = 0;
    sphere_mercator_inverse(s.derived2, x - s.false_easting, y - s.false_northing, turned_lambda,
                            turned_chi);
    SpherePoint p = sphere_point(turned_lambda, turned_chi);
    const double chi0 = s.derived4;
    turn(p.x, p.z, std::cos(chi0), std::sin(chi0));
    lambda = std::atan2(p.y, p.x);
    chi = std::asin(p.z);
}

constexpr OpFunction gauss_oblique_origin_forward =
    project<on_gauss_sphere<gauss_oblique_origin_project>>;
constexpr OpFunction gauss_oblique_origin_inverse =
    unproject<from_gauss_sphere<gauss_oblique_origin_unproject>>;

// Op 19: Gauss-Schreiber transverse Mercator.
void gauss_schreiber_project(const ProjectedSystem& s, double lambda, double chi, double& x,
                             double& y) {
    const double r = s.derived2;
    const double across = std::asin(std::cos(chi) * std::sin(lambda));
    if (std::fabs(across) >= mercator_latitude_limit) {
        y = s.false_northing;
        x = signed_huge(across);
    } else {
        y = r * std::atan(std::tan(chi) / std::cos(lambda)) + s.extra1;
        x = r * std::log(std::tan(quarter_pi + across / 2)) + s.false_easting;
    }
}

void gauss_schreiber_unproject(const ProjectedSystem& s, double x, double y, double& lambda,
                               double& chi) {
    const double r = s.derived2;
    const double across = 2 * std::atan(std::exp((x - s.false_easting) / r)) - half_pi;
    const double along = (y - s.extra1) / r;
    lambda = std::atan2(std::sin(across), std::cos(across) * std::cos(along));
    chi = std::asin(std::cos(across) * std::sin(along));
}

constexpr OpFunction gauss_schreiber_forward = project<on_gauss_sphere<gauss_schreiber_project>>;
constexpr OpFunction gauss_schreiber_inverse =
    unproject<from_gauss_sphere<gauss_schreiber_unproject>>;

// Op 20: oblique stereographic on the Gauss sphere.
void gauss_stereographic_project(const ProjectedSystem& s, double lambda, double chi, double& x,
                                 double& y) {
    const double chi0 = s.derived4;
    const double r = s.derived2;
    if (std::fabs(chi + chi0) <= pole_tolerance &&
        std::fabs(std::fabs(lambda) - pi) <= pole_tolerance) {
        x = signed_huge(lambda);
        y = s.false_northing;
    } else {
        const double d =
            1 + std::sin(chi) * std::sin(chi0) + std::cos(chi) * std::cos(chi0) * std::cos(lambda);
        x = s.false_easting + 2 * r * std::cos(chi) * std::sin(lambda) / d;
        y = s.false_northing + 2 * r *
                                   (std::sin(chi) * std::cos(chi0) -
                                    std::cos(chi) * std::sin(chi0) * std::cos(lambda)) /
                                   d;
    }
}

void gauss_stereographic_unproject(const ProjectedSystem& s, double x, double y, double& lambda,
                                   double& chi) {
    const double chi0 = s.derived4;
    const double r = s.derived2;
    const double dx = x - s.false_easting;
    const double dy = y - s.false_northing;
    const double rho = std::hypot(dx, dy);
    lambda = 0;
    chi = chi0;
    if (rho > 0) {
        const double c = 2 * std::atan(rho / (2 * r));
        chi = std::asin(std::cos(c) * std::sin(chi0) + dy * std::sin(c) * std::cos(chi0) / rho);
        lambda = std::atan2(dx * std::sin(c),
                            rho * std::cos(chi0) * std::cos(c) - dy * std::sin(chi0) * std::sin(c));
    }
}

constexpr OpFunction gauss_stereographic_forward =
    project<on_gauss_sphere<gauss_stereographic_project>>;
constexpr OpFunction gauss_stereographic_inverse =
    unproject<from_gauss_sphere<gauss_stereographic_unproject>>;

// Op 21: conformal conic on the sphere turned about the axis of azimuth extra1.
// As op 18, the forward turn follows the method's formulas.
void gauss_conic_project(const ProjectedSystem& s, double lambda, double chi, double& x,
                         double& y) {
    const double alpha = s.extra1;
    const double n = s.derived4;
    const double big_s = std::asin(std::sin(alpha) * std::cos(lambda) * std::cos(chi) +
                                   std::cos(alpha) * std::sin(chi));
    const double delta = std::asin(-std::sin(lambda) * std::cos(chi) / std::cos(big_s));
    if (on_pole(big_s)) {
        x = s.false_easting;
        y = n * big_s >= 0 ? s.false_northing : signed_huge(-big_s);
    } else {
        const double theta = n * delta;
        const double rho = s.derived2 / std::pow(std::tan(big_s / 2 + quarter_pi), n);
        x = rho * std::cos(theta) + s.false_easting;
        y = rho * std::sin(theta) + s.false_northing;
    }
}

void gauss_conic_unproject(const ProjectedSystem& s, double x, double y, double& lambda,
                           double& chi) {
    const double alpha = s.extra1;
    const double n = s.derived4;
    const double sign = n < 0 ? -1.0 : 1.0;
    const double dx = x - s.false_easting;
    const double dy = y - s.false_northing;
    const double rho = sign * std::hypot(dx, dy);
    const double theta = std::atan2(sign * dy, sign * dx);
    const double delta = theta / n;
    const double big_s = 2 * std::atan(std::pow(s.derived2 / rho, 1 / n)) - half_pi;
    SpherePoint p = sphere_point(delta, big_s);
    turn(p.x, p.z, std::cos(alpha), -std::sin(alpha));
    lambda = std::atan2(-p.y, p.x);
    chi = std::asin(p.z);
}

constexpr OpFunction gauss_conic_forward = project<on_gauss_sphere<gauss_conic_project>>;
constexpr OpFunction gauss_conic_inverse = unproject<from_gauss_sphere<gauss_conic_unproject>>;

// Op 22: oblique Mercator on the Gauss sphere, the central line crossing the
// sphere's equator at longitude derived4 with azimuth extra1. The sphere
// turns about its x axis by alpha - 90 degrees, putting the central line on
// the equator, and back by 90 degrees - alpha.
void gauss_oblique_mercator_project(const ProjectedSystem& s, double lambda, double chi, double& x,
                                    double& y) {
    const double alpha = s.extra1;
    SpherePoint p = sphere_point(lambda, chi);
    turn(p.y, p.z, std::sin(alpha), -std::cos(alpha));
    const double turned_chi = std::asin(p.z);
    const double turned_lambda = std::atan2(p.y, p.x);
    double u = 0;
    double v = 0;
    sphere_mercator(s.derived2, turned_lambda, turned_chi, u, v);
    u -= s.extra3;
    x = std::sin(alpha) * u - std::cos(alpha) * v + s.false_easting;
    y = std::cos(alpha) * u + std::sin(alpha) * v + s.false_northing;
}

void gauss_oblique_mercator_unproject(const ProjectedSystem& s, double x, double y, double& lambda,
                                      double& chi) {
    const double alpha = s.extra1;
    const double dx = x - s.false_easting;
    const double dy = y - s.false_northing;
    const double u = std::sin(alpha) * dx + std::cos(alpha) * dy + s.extra3;
    const double v = -std::cos(alpha) * dx + std::sin(alpha) * dy;
    double turned_lambda = 0;
    double turned_chi = 0;
    sphere_mercator_inverse(s.derived2, u, v, turned_lambda, turned_chi);
    SpherePoint p = sphere_point(turned_lambda, turned_chi);
    turn(p.y, p.z, std::sin(alpha), std::cos(alpha));
    lambda = std::atan2(p.y, p.x);
    chi = std::asin(p.z);
}

constexpr OpFunction gauss_oblique_mercator_forward =
    project<on_gauss_sphere<gauss_oblique_mercator_project, &ProjectedSystem::derived4>>;
constexpr OpFunction gauss_oblique_mercator_inverse =
    unproject<from_gauss_sphere<gauss_oblique_mercator_unproject, &ProjectedSystem::derived4>>;

// ---- Operations on other records ----

void op_nothing(void*, double&, double&, double&) {}

void pixel_scale_forward(void* object, double& x, double& y, double&) {
    const auto& scale = *static_cast<const GeoPixelScale*>(object);
    const auto* tie = find_obj_adr<GeoTiePoint>(scale.tie_point);
    if (!tie) return;
    x = (x - tie->raster_x) * scale.scale_x + tie->model_x;
    y = (y - tie->raster_y) * scale.scale_y + tie->model_y;
}

void pixel_scale_inverse(void* object, double& x, double& y, double&) {
    const auto& scale = *static_cast<const GeoPixelScale*>(object);
    const auto* tie = find_obj_adr<GeoTiePoint>(scale.tie_point);
    if (!tie) return;
    x = (x - tie->model_x) / scale.scale_x + tie->raster_x;
    y = (y - tie->model_y) / scale.scale_y + tie->raster_y;
}

void scale_forward(void* object, double& x, double& y, double&) {
    const auto& scale = *static_cast<const ScaleRecord*>(object);
    x *= scale.factor_x;
    y *= scale.factor_y;
}

void scale_inverse(void* object, double& x, double& y, double&) {
    const auto& scale = *static_cast<const ScaleRecord*>(object);
    x /= scale.factor_x;
    y /= scale.factor_y;
}

void affine(const double* m, double& x, double& y, double& z) {
    const double nx = m[0] * x + m[1] * y + m[2] * z + m[3];
    const double ny = m[4] * x + m[5] * y + m[6] * z + m[7];
    const double nz = m[8] * x + m[9] * y + m[10] * z + m[11];
    x = nx;
    y = ny;
    z = nz;
}

void affine_forward(void* object, double& x, double& y, double& z) {
    affine(static_cast<const GeoTransform*>(object)->forward, x, y, z);
}
void affine_inverse(void* object, double& x, double& y, double& z) {
    affine(static_cast<const GeoTransform*>(object)->inverse, x, y, z);
}

void linear(const double* m, double& x, double& y) {
    const double nx = m[0] * x + m[1] * y;
    const double ny = m[2] * x + m[3] * y;
    x = nx;
    y = ny;
}
void matrix_forward(void* object, double& x, double& y, double&) {
    linear(static_cast<const LinearMatrix*>(object)->forward, x, y);
}
void matrix_inverse(void* object, double& x, double& y, double&) {
    linear(static_cast<const LinearMatrix*>(object)->inverse, x, y);
}

void chain_forward(void* object, double& x, double& y, double& z);
void chain_backward(void* object, double& x, double& y, double& z);

void meridian_forward(void* object, double& x, double&, double&) {
    const auto& shift = *static_cast<const DatumShift*>(object);
    x = (x / angle_factor(shift.length_unit) + shift.translation_x) *
        angle_factor(shift.to_angle_unit);
}

void meridian_inverse(void* object, double& x, double&, double&) {
    const auto& shift = *static_cast<const DatumShift*>(object);
    x = (x / angle_factor(shift.to_angle_unit) - shift.translation_x) *
        angle_factor(shift.length_unit);
}

void translation(const DatumShift& shift, double sign, double& x, double& y, double& z) {
    const double factor = length_factor(shift.length_unit);
    x = (x * factor + sign * shift.translation_x) / factor;
    y = (y * factor + sign * shift.translation_y) / factor;
    z = (z * factor + sign * shift.translation_z) / factor;
}

void translation_forward(void* object, double& x, double& y, double& z) {
    translation(*static_cast<const DatumShift*>(object), 1.0, x, y, z);
}
void translation_inverse(void* object, double& x, double& y, double& z) {
    translation(*static_cast<const DatumShift*>(object), -1.0, x, y, z);
}

// The inverse evaluates the increments at the point it is given and takes
// them off: first order only, a centimetre or two from the true inverse for
// the shifts of national datums. Kept on purpose: that is below what the
// published shifts themselves are worth, and converted data must not move
// between versions of the program.
void seven(const DatumShift& shift, double sign, double& x, double& y, double& z) {
    const double factor = length_factor(shift.length_unit);
    const double mx = x * factor;
    const double my = y * factor;
    const double mz = z * factor;
    const double s = shift.scale;
    const double dx = s * mx - shift.rotation_z * my + shift.rotation_y * mz + shift.translation_x;
    const double dy = shift.rotation_z * mx + s * my - shift.rotation_x * mz + shift.translation_y;
    const double dz = -shift.rotation_y * mx + shift.rotation_x * my + s * mz + shift.translation_z;
    x = (mx + sign * dx) / factor;
    y = (my + sign * dy) / factor;
    z = (mz + sign * dz) / factor;
}

void seven_forward(void* object, double& x, double& y, double& z) {
    seven(*static_cast<const DatumShift*>(object), 1.0, x, y, z);
}
void seven_inverse(void* object, double& x, double& y, double& z) {
    seven(*static_cast<const DatumShift*>(object), -1.0, x, y, z);
}

void to_cartesian(void* object, double& x, double& y, double& z) {
    const auto& datum = *static_cast<const Datum*>(object);
    if (!datum.ellipsoid_record) return;
    const EllipsoidShape shape = ellipsoid_shape(*datum.ellipsoid_record);
    const double factor = angle_factor(datum.angle_unit);
    const double lambda = x / factor + datum.prime_meridian_longitude;
    const double phi = y / factor;
    const double h = z;
    const double n = radius_prime_vertical(shape, phi);
    x = (n + h) * std::cos(phi) * std::cos(lambda);
    y = (n + h) * std::cos(phi) * std::sin(lambda);
    z = (n * (1 - shape.eccentricity_squared) + h) * std::sin(phi);
}

void to_geographic(void* object, double& x, double& y, double& z) {
    const auto& datum = *static_cast<const Datum*>(object);
    if (!datum.ellipsoid_record) return;
    const EllipsoidShape shape = ellipsoid_shape(*datum.ellipsoid_record);
    const double e2 = shape.eccentricity_squared;
    double lambda = 0;
    if (x != 0) {
        lambda = std::atan(y / x);
        if (x < 0) lambda += y < 0 ? -pi : pi;
    } else if (y != 0) {
        lambda = y < 0 ? -half_pi : half_pi;
    }
    const double p = std::hypot(x, y);
    double t = z / (p - e2 * p);
    double phi = std::atan(t);
    double n = radius_prime_vertical(shape, phi);
    for (int round = 0; round < geographic_iteration_limit; ++round) {
        n = radius_prime_vertical(shape, phi);
        const double next = z / (p - n * e2 * std::cos(phi));
        phi = std::atan(next);
        const bool settled = std::fabs(next - t) < geographic_tangent_tolerance;
        t = next;
        if (settled) break;
    }
    n = radius_prime_vertical(shape, phi);
    const double h = p / std::cos(phi) - n;
    const double factor = angle_factor(datum.angle_unit);
    x = (lambda - datum.prime_meridian_longitude) * factor;
    y = phi * factor;
    z = h;
}

// ---- The two tables ----

struct OpRow {
    OpFunction forward;
    OpFunction inverse;
    ObjectType object_type; // what an entry of this number is bound to
};

constexpr ObjectType type44 = static_cast<ObjectType>(44);

// clang-format off
constexpr OpRow op_table[] = {
    {op_nothing, op_nothing, ObjectType::None},                                              //  0
    {pixel_scale_forward, pixel_scale_inverse, ObjectType::GeoPixelScale},                   //  1
    {scale_forward, scale_inverse, ObjectType::GeodesyCompanion57},                          //  2
    {affine_forward, affine_inverse, ObjectType::GeoTransform},                              //  3
    {matrix_forward, matrix_inverse, ObjectType::GeodesyCompanion47},                        //  4
    {op_nothing, op_nothing, type44},                                                        //  5
    {chain_forward, chain_backward, ObjectType::CoordBuffer},                                //  6
    {meridian_forward, meridian_inverse, ObjectType::DatumShift},                            //  7
    {translation_forward, translation_inverse, ObjectType::DatumShift},                      //  8
    {seven_forward, seven_inverse, ObjectType::DatumShift},                                  //  9
    {seven_forward, seven_inverse, ObjectType::DatumShift},  // the pivot is never applied     10
    {to_cartesian, to_geographic, ObjectType::Datum},                                        // 11
    {to_geographic, to_cartesian, ObjectType::Datum},                                        // 12
    {lambert_forward, lambert_inverse, ObjectType::ProjectedSystem},                         // 13
    {polar_forward, polar_inverse, ObjectType::ProjectedSystem},                             // 14
    {mercator_forward, mercator_inverse, ObjectType::ProjectedSystem},                       // 15
    {transverse_mercator_forward, transverse_mercator_inverse, ObjectType::ProjectedSystem}, // 16
    {equirectangular_forward, equirectangular_inverse, ObjectType::ProjectedSystem},         // 17
    {gauss_oblique_origin_forward, gauss_oblique_origin_inverse, ObjectType::ProjectedSystem}, // 18
    {gauss_schreiber_forward, gauss_schreiber_inverse, ObjectType::ProjectedSystem},         // 19
    {gauss_stereographic_forward, gauss_stereographic_inverse, ObjectType::ProjectedSystem}, // 20
    {gauss_conic_forward, gauss_conic_inverse, ObjectType::ProjectedSystem},                 // 21
    {gauss_oblique_mercator_forward, gauss_oblique_mercator_inverse, ObjectType::ProjectedSystem}, // 22
    {lambert_inverse, lambert_forward, ObjectType::ProjectedSystem},                         // 23
    {polar_inverse, polar_forward, ObjectType::ProjectedSystem},                             // 24
    {mercator_inverse, mercator_forward, ObjectType::ProjectedSystem},                       // 25
    {transverse_mercator_inverse, transverse_mercator_forward, ObjectType::ProjectedSystem}, // 26
    {equirectangular_inverse, equirectangular_forward, ObjectType::ProjectedSystem},         // 27
    {gauss_oblique_origin_inverse, gauss_oblique_origin_forward, ObjectType::ProjectedSystem}, // 28
    {gauss_schreiber_inverse, gauss_schreiber_forward, ObjectType::ProjectedSystem},         // 29
    {gauss_stereographic_inverse, gauss_stereographic_forward, ObjectType::ProjectedSystem}, // 30
    {gauss_conic_inverse, gauss_conic_forward, ObjectType::ProjectedSystem},                 // 31
    {gauss_oblique_mercator_inverse, gauss_oblique_mercator_forward, ObjectType::ProjectedSystem}, // 32
};
// clang-format on
static_assert(sizeof(op_table) / sizeof(op_table[0]) == op_count);

// The inverse numbers of the ten projections, as a chain un-projects them.
// Oblique Mercator on the Gauss sphere (22) holds 0, so its data pass
// through a chain as if already geographic. Kept on purpose: charts made of
// those coordinates have always been placed that way.
// clang-format off
constexpr int32_t chain_unprojection[] = {
    23, // 13
    24, // 14
    25, // 15
    26, // 16
    27, // 17
    28, // 18
    29, // 19
    30, // 20
    31, // 21
    0,  // 22
};
// clang-format on
static_assert(sizeof(chain_unprojection) / sizeof(chain_unprojection[0]) ==
              op_last_projection - op_first_projection + 1);

void chain_forward(void* object, double& x, double& y, double& z) {
    const auto& chain = *static_cast<const CoordBuffer*>(object);
    for (int32_t i = 0; i < chain.count; ++i)
        op_table[chain.ops[i]].forward(chain.addresses[i], x, y, z);
}

void chain_backward(void* object, double& x, double& y, double& z) {
    const auto& chain = *static_cast<const CoordBuffer*>(object);
    for (int32_t i = chain.count - 1; i >= 0; --i)
        op_table[chain.ops[i]].inverse(chain.addresses[i], x, y, z);
}

void coord_buffer_destructor(void* record) {
    auto* chain = static_cast<CoordBuffer*>(record);
    free_mem(chain->objects);
    free_mem(chain->ops);
    free_mem(chain->addresses);
}

// Appends an entry; its record is looked up through the op's object type.
void chain_add(CoordBuffer& chain, ObjectId object, int32_t op) {
    if (chain.count >= chain.capacity || op < 0 || op >= op_count) return;
    void* address = nullptr;
    if (object != 0 && op_table[op].object_type != ObjectType::None)
        address = get_obj_adr(op_table[op].object_type, object, nullptr);
    chain.objects[chain.count] = object;
    chain.ops[chain.count] = op;
    chain.addresses[chain.count] = address;
    ++chain.count;
}

// ---- The method table ----

using SetupFunction = void (*)(ProjectedSystem&, const EllipsoidShape&, int angle_unit);

struct MethodRow {
    int32_t method; // the number used in the table files
    int32_t op;     // the operation it selects
    SetupFunction setup;
};

// clang-format off
constexpr MethodRow method_table[] = {
    {0, 0, setup_nothing_extra},
    {1, 16, setup_transverse_mercator},
    {3, 22, setup_gauss_oblique_azimuth},
    {4, 21, setup_gauss_unit_scale},
    {5, 18, setup_gauss},
    {7, 15, setup_mercator_scale},
    {8, 13, setup_lambert_two},
    {9, 13, setup_lambert_one},
    {15, 14, setup_polar_pole_scale},
    {16, 20, setup_gauss},
    {17, 17, setup_equirectangular},
    {26, 0, setup_transverse_mercator},
    {28, 13, setup_lambert_two},
    {30, 22, setup_gauss_oblique_rectified},
    {36, 17, setup_equirectangular_equator},
    {42, 15, setup_mercator_parallel},
    {43, 19, setup_gauss_schreiber},
    {44, 21, setup_gauss_conic},
    {45, 20, setup_gauss},
    {46, 14, setup_polar_true_scale},
};
// clang-format on
static_assert(sizeof(method_table) / sizeof(method_table[0]) == 20);

const MethodRow* find_method(int32_t method) {
    for (const MethodRow& row : method_table)
        if (row.method == method) return &row;
    return nullptr;
}

bool is_listed_method(int32_t method) {
    return find_method(method) != nullptr;
}

} // namespace

// ---- Public helpers ----

EllipsoidShape ellipsoid_shape(const Ellipsoid& ellipsoid) {
    const double e2 = ellipsoid.eccentricity_squared;
    return {ellipsoid.semi_major, e2, std::sqrt(e2 > 0 ? e2 : 0.0)};
}

double radius_prime_vertical(const EllipsoidShape& shape, double latitude) {
    const double s = std::sin(latitude);
    return shape.semi_major / std::sqrt(1 - shape.eccentricity_squared * s * s);
}

double radius_meridian(const EllipsoidShape& shape, double latitude) {
    const double s = std::sin(latitude);
    return shape.semi_major * (1 - shape.eccentricity_squared) /
           std::pow(1 - shape.eccentricity_squared * s * s, 1.5);
}

double isometric_latitude(const EllipsoidShape& shape, double latitude) {
    const double es = shape.eccentricity * std::sin(latitude);
    return std::log(std::tan(quarter_pi + latitude / 2)) -
           shape.eccentricity / 2 * std::log((1 + es) / (1 - es));
}

double conformal_factor(const EllipsoidShape& shape, double latitude) {
    if (on_pole(latitude)) return 0.0;
    const double es = shape.eccentricity * std::sin(latitude);
    return std::tan(quarter_pi + latitude / 2) *
           std::pow((1 - es) / (1 + es), shape.eccentricity / 2);
}

double latitude_from_isometric(const EllipsoidShape& shape, double isometric) {
    const double e = shape.eccentricity;
    const double growth = std::exp(isometric);
    double phi = 2 * std::atan(growth) - half_pi;
    double t = 0;
    for (int round = 0; round < isometric_iteration_limit; ++round) {
        const double es = e * std::sin(phi);
        const double next = std::pow((1 + es) / (1 - es), e / 2) * growth;
        phi = 2 * std::atan(next) - half_pi;
        const bool settled = std::fabs(next - t) < isometric_tolerance;
        t = next;
        if (settled) break;
    }
    return phi;
}

// ---- Operations and chains ----

void transforms_register_types() {
    set_obj_type<CoordBuffer>();
    set_obj_destructor(ObjectType::CoordBuffer, coord_buffer_destructor);
    set_obj_type<GeoTiePoint>();
    set_obj_type<GeoPixelScale>();
    set_obj_type<GeoTransform>();
    set_obj_type<LinearMatrix>();
}

namespace {

// The record an operation applies to, looked up through the op's object
// type. False when the operation is not to run: op outside the table (error
// 12), a record that is not there, or no record for an op that needs one.
bool op_record(ObjectId object, int32_t op, void*& address) {
    if (op < 0 || op >= op_count) {
        set_gblerr(ErrorCode::value_internal);
        return false;
    }
    address = nullptr;
    if (object != 0 && op_table[op].object_type != ObjectType::None) {
        address = get_obj_adr(op_table[op].object_type, object, nullptr);
        return address != nullptr;
    }
    return op == op_none || op == op_type44;
}

} // namespace

void op_apply(ObjectId object, int32_t op, double& x, double& y, double& z) {
    void* address = nullptr;
    if (op_record(object, op, address)) op_table[op].forward(address, x, y, z);
}

void op_apply_inverse(ObjectId object, int32_t op, double& x, double& y, double& z) {
    void* address = nullptr;
    if (op_record(object, op, address)) op_table[op].inverse(address, x, y, z);
}

void make_chain(ObjectId georeference, ObjectId& out_chain) {
    make_chain_to(georeference, 0, out_chain);
}

void make_chain_to(ObjectId georeference, ObjectId target_projected, ObjectId& out_chain) {
    out_chain = 0;
    if (georeference == 0 || error_pending()) return;
    const auto* reference = get_obj_adr<GeoReference>(georeference);
    if (!reference) return;
    ObjectId source_datum = reference->datum;
    ObjectId projected = 0;
    int32_t projected_op = 0;
    if (reference->kind == georeference_projected) {
        const auto* system = get_obj_adr<ProjectedSystem>(reference->projected);
        if (!system) return;
        if (system->datum == 0) {
            set_gblerr(ErrorCode::geographic);
            return;
        }
        source_datum = system->datum;
        projected = reference->projected;
        projected_op = system->op;
    }
    ObjectId target_datum = find_by_code(ObjectType::Datum, wgs84_datum_code);
    int32_t target_op = 0;
    if (target_projected != 0) {
        const auto* target = get_obj_adr<ProjectedSystem>(target_projected);
        if (!target) return;
        target_datum = target->datum;
        target_op = target->op;
    }
    int32_t steps = 0;
    if (source_datum != target_datum) steps += 3;
    if (projected != 0) ++steps;
    if (target_projected != 0) ++steps;
    if (steps == 0 && reference->pre_transform == 0) return;

    ObjectId pre_transform = reference->pre_transform;
    const int32_t pre_op = reference->pre_op;
    // The shift is looked up before the chain exists, so a missing link
    // leaves nothing behind.
    ObjectId shift = 0;
    if (source_datum != target_datum) {
        int32_t cost = 0;
        if (!find_shift(source_datum, target_datum, &shift, &cost) || shift == 0) {
            set_gblerr(ErrorCode::geographic);
            return;
        }
    }
    ObjectId chain_id = 0;
    auto* chain = cre_obj<CoordBuffer>(&chain_id);
    if (!chain) return;
    chain->capacity = steps + 1;
    alloc_zero_mem(chain->objects, sizeof(ObjectId) * chain->capacity);
    alloc_zero_mem(chain->ops, sizeof(int32_t) * chain->capacity);
    alloc_zero_mem(chain->addresses, sizeof(void*) * chain->capacity);
    if (pre_transform != 0) chain_add(*chain, pre_transform, pre_op);
    if (projected != 0 && projected_op >= op_first_projection && projected_op <= op_last_projection)
        chain_add(*chain, projected, chain_unprojection[projected_op - op_first_projection]);
    else if (projected != 0)
        chain_add(*chain, projected, op_none);
    if (shift != 0) {
        const auto* record = get_obj_adr<DatumShift>(shift);
        if (record && record->op == op_meridian) {
            chain_add(*chain, shift, op_meridian);
        } else if (record && record->op != op_none) {
            chain_add(*chain, source_datum, op_to_cartesian);
            chain_add(*chain, shift, record->op);
            chain_add(*chain, target_datum, op_to_geographic);
        }
    }
    if (target_projected != 0) chain_add(*chain, target_projected, target_op);
    if (error_pending()) {
        ErrorHold hold;
        del_obj(ObjectType::CoordBuffer, chain_id);
        return;
    }
    out_chain = chain_id;
}

void chain_apply(ObjectId chain, double& x, double& y, double& z) {
    if (chain == 0) return;
    if (auto* record = find_obj_adr<CoordBuffer>(chain)) chain_forward(record, x, y, z);
}

void chain_apply_inverse(ObjectId chain, double& x, double& y, double& z) {
    if (chain == 0) return;
    if (auto* record = find_obj_adr<CoordBuffer>(chain)) chain_backward(record, x, y, z);
}

// ---- Projected systems ----

void projected_setup(ProjectedSystem& system, int angle_unit) {
    const MethodRow* row = find_method(system.method);
    if (!row) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    system.op = row->op;
    if (!system.datum_record || !system.datum_record->ellipsoid_record) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    const double e2 = system.datum_record->ellipsoid_record->eccentricity_squared;
    if (e2 < 0) {
        set_gblerr(ErrorCode::value_internal);
        return;
    }
    system.eccentricity = std::sqrt(e2);
    if (row->op == op_mercator && on_pole(system.latitude_origin)) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    row->setup(system, shape_of(system), angle_unit);
}

void projected_create(const char* name, int method, const double values[8], int length_unit,
                      int angle_unit, ObjectId datum, int code, ObjectId& out_id) {
    out_id = 0;
    if (error_pending()) return;
    if (!is_listed_method(method)) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    if (length_unit < 0 || length_unit > length_unit_count - 1) length_unit = length_unit_metre;
    if (angle_unit < 0 || angle_unit > angle_unit_count - 1) angle_unit = angle_unit_degree;
    auto* datum_record = get_obj_adr<Datum>(datum);
    if (!datum_record) return;
    ObjectId id = 0;
    auto* system = cre_obj<ProjectedSystem>(&id);
    if (!system) return;
    const double angle = angle_factor(angle_unit);
    const double length = length_factor(length_unit);
    system->code = code;
    if (name) str_copy(name, system->name);
    system->length_unit = length_unit;
    system->method = method;
    system->datum = datum;
    system->datum_record = datum_record;
    system->longitude_origin = values[0] / angle;
    system->latitude_origin = values[1] / angle;
    system->scale_factor = values[2];
    system->false_easting = values[3] * length;
    system->false_northing = values[4] * length;
    system->extra1 = values[5];
    system->extra2 = values[6];
    system->extra3 = values[7];
    projected_setup(*system, angle_unit);
    if (error_pending()) {
        ErrorHold hold;
        del_obj(ObjectType::ProjectedSystem, id);
        return;
    }
    out_id = id;
}

void projected_finish(ObjectId id, int angle_unit) {
    auto* system = get_obj_adr<ProjectedSystem>(id);
    if (!system) return;
    if (system->method < 0 || system->method > highest_method || system->datum <= 0) {
        set_gblerr(ErrorCode::geographic);
        return;
    }
    system->datum_record = get_obj_adr<Datum>(system->datum);
    if (!system->datum_record) return;
    system->code = next_code(ObjectType::ProjectedSystem);
    projected_setup(*system, angle_unit);
}

bool projected_equals(const ProjectedSystem& first, const ProjectedSystem& second) {
    if (first.method != second.method) return false;
    if (first.op == op_lambert) {
        if (std::fabs(first.extra1 - second.extra1) > equal_angle_tolerance) return false;
        if (std::fabs(first.extra2 - second.extra2) > equal_angle_tolerance) return false;
        if (std::fabs(first.extra3 - second.extra3) > equal_extra3_tolerance) return false;
    }
    return std::fabs(first.longitude_origin - second.longitude_origin) <= equal_angle_tolerance &&
           std::fabs(first.latitude_origin - second.latitude_origin) <= equal_angle_tolerance &&
           std::fabs(first.scale_factor - second.scale_factor) <= equal_scale_tolerance &&
           std::fabs(first.false_easting - second.false_easting) <= equal_offset_tolerance_m &&
           std::fabs(first.false_northing - second.false_northing) <= equal_offset_tolerance_m;
}

void find_projected_equal(ObjectId id, ObjectId& out_found) {
    out_found = 0;
    const auto* system = get_obj_adr<ProjectedSystem>(id);
    if (!system) return;
    const ObjectId index = geodesy_indexes.projected_by_datum;
    if (index == 0) return;
    ObjectId candidate = 0;
    void* address = nullptr;
    const ObjectId datum = system->datum;
    while (oset_next_equal(index, &datum, candidate, &address)) {
        if (candidate == id || !address) continue;
        const auto& other = *static_cast<const ProjectedSystem*>(address);
        if (other.datum != datum || other.method != system->method) continue;
        if (projected_equals(*system, other)) {
            out_found = candidate;
            return;
        }
    }
}

namespace {

// The end of a system the program makes for itself: set up and indexed, or
// deleted when the set-up fails.
void finish_made_system(ObjectId id, ObjectId& out_id) {
    projected_finish(id, angle_unit_radian);
    if (error_pending()) {
        ErrorHold hold;
        del_obj(ObjectType::ProjectedSystem, id);
        return;
    }
    geodesy_index_add(ObjectType::ProjectedSystem, id);
    out_id = id;
}

} // namespace

void utm_system(ObjectId datum, int zone, bool south, ObjectId& out_id) {
    out_id = 0;
    const auto* datum_record = get_obj_adr<Datum>(datum);
    if (!datum_record) return;
    ObjectId id = 0;
    auto* system = cre_obj<ProjectedSystem>(&id);
    if (!system) return;
    system->method = utm_method;
    system->op = op_transverse_mercator;
    system->length_unit = length_unit_metre;
    system->datum = datum;
    system->datum_record = const_cast<Datum*>(datum_record);
    system->latitude_origin = 0;
    system->scale_factor = utm_scale_factor;
    system->false_easting = utm_false_easting_m;
    system->false_northing = south ? utm_false_northing_south_m : 0.0;
    system->longitude_origin =
        (zone * utm_zone_width_deg - utm_zone_offset_deg) / degrees_per_radian;
    ObjectId existing = 0;
    find_projected_equal(id, existing);
    if (existing != 0) {
        del_obj(ObjectType::ProjectedSystem, id);
        out_id = existing;
        return;
    }
    char name[system_name_capacity];
    std::snprintf(name, sizeof name, "%s / UTM zone %02d%c",
                  datum_record->name ? datum_record->name : "", zone, south ? 'S' : 'N');
    str_copy(name, system->name);
    finish_made_system(id, out_id);
}

void utm_for_point(ObjectId datum, double longitude_deg, double latitude_deg, ObjectId& out_id) {
    const int zone = 1 + static_cast<int>((longitude_deg + 180) / utm_zone_width_deg);
    utm_system(datum, zone, latitude_deg < 0, out_id);
}

void plate_carree_system(ObjectId datum, double latitude, ObjectId& out_id) {
    out_id = 0;
    const auto* datum_record = get_obj_adr<Datum>(datum);
    if (!datum_record) return;
    const double latitude_rad = latitude / angle_factor(datum_record->angle_unit);
    const ObjectId index = geodesy_indexes.projected_by_datum;
    if (index != 0) {
        ObjectId candidate = 0;
        void* address = nullptr;
        while (oset_next_equal(index, &datum, candidate, &address)) {
            if (!address) continue;
            const auto& other = *static_cast<const ProjectedSystem*>(address);
            if (other.method == plate_carree_method &&
                std::fabs(other.latitude_origin - latitude_rad) <=
                    plate_carree_latitude_tolerance) {
                out_id = candidate;
                return;
            }
        }
    }
    ObjectId id = 0;
    auto* system = cre_obj<ProjectedSystem>(&id);
    if (!system) return;
    char name[system_name_capacity];
    std::snprintf(name, sizeof name, "%s / Plate carree",
                  datum_record->name ? datum_record->name : "");
    str_copy(name, system->name);
    system->method = plate_carree_method;
    system->length_unit = length_unit_metre;
    system->datum = datum;
    system->scale_factor = 1.0;
    system->latitude_origin = latitude_rad;
    system->longitude_origin = 0;
    finish_made_system(id, out_id);
}

// The radius is the meridian's taken at the mean of the two longitudes, not
// of the latitudes. Kept on purpose: logged distances were computed so.
double distance(ObjectId datum, double longitude1, double latitude1, double longitude2,
                double latitude2) {
    const auto* record = find_obj_adr<Datum>(datum);
    if (!record || !record->ellipsoid_record) {
        set_gblerr(ErrorCode::object_internal);
        return 0.0;
    }
    const double factor = angle_factor(record->angle_unit);
    const double lambda1 = longitude1 / factor;
    const double phi1 = latitude1 / factor;
    const double lambda2 = longitude2 / factor;
    const double phi2 = latitude2 / factor;
    const double half_dphi = std::sin((phi2 - phi1) / 2);
    const double half_dlambda = std::sin((lambda2 - lambda1) / 2);
    const double h =
        half_dphi * half_dphi + std::cos(phi1) * std::cos(phi2) * half_dlambda * half_dlambda;
    const double angle = 2 * std::asin(std::sqrt(h));
    return angle *
           radius_meridian(ellipsoid_shape(*record->ellipsoid_record), (lambda1 + lambda2) / 2);
}

} // namespace norvanta
