// The tables that ship in system/, loaded as the program loads them: every
// datum with a shift converts to WGS 84 and back, and every alias row finds the
// object it names. A slip in the generator (a sign, a unit, a name) or in the
// loader's indexes shows here on the real data.
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "geodesy/tables.h"
#include "geodesy/transforms.h"
#include "shell/errors.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

const std::string system_tables = NORVANTA_SYSTEM_SOURCE_DIR "/";

// Metres per degree of latitude, near enough to turn angle errors into metres.
constexpr double metres_per_degree = 111320.0;
// Translations and meridian shifts undo exactly. The seven-parameter inverse
// is first order on purpose: it subtracts the increments evaluated at the
// shifted point, so a round trip misses by the rotation and scale applied to
// the shift itself, rho (|t| + rho a) with rho the size of the rotation plus
// the scale. Twice that is the bound; a wrong unit or a rotation of the wrong
// size misses by metres.
constexpr double exact_round_trip_tolerance_m = 0.001;
constexpr double semi_major_m = 6378137.0;
constexpr double first_order_margin = 2.0;
constexpr int32_t seven_parameter_op = 9;
constexpr double test_longitude_deg = 12.5;
constexpr double test_latitude_deg = 46.25;
constexpr double test_height_m = 350.0;
constexpr double radians_per_degree = 3.14159265358979323846 / 180.0;
// The marker row of a generated alias file names nothing.
constexpr int32_t marker_scheme = 0;

void load_system_tables() {
    static const bool loaded = [] {
        object_store_create();
        geodesy_register_types();
        transforms_register_types();
        geodesy_load_from(system_tables.c_str());
        geodesy_find_wgs84();
        return true;
    }();
    (void)loaded;
    ASSERT_FALSE(error_pending()) << "the system tables do not load: code " << gblerr.load();
    ASSERT_NE(wgs84_datum, 0);
}

// WGS 84 -> datum -> WGS 84 through the chain of a geographic GeoReference on
// the datum, at a point of mid latitudes with some height: a shift of the
// wrong unit, or a rotation of the wrong size, would not come back.
TEST(SystemTables, EveryDatumWithAShiftRoundTrips) {
    load_system_tables();
    int datums = 0;
    ObjectId datum_id = 0;
    void* address = nullptr;
    while (next_obj(ObjectType::Datum, datum_id, &address) && datum_id != 0) {
        const auto* datum = static_cast<const Datum*>(address);
        ObjectId shift_id = 0;
        int32_t cost = 0;
        if (datum_id == wgs84_datum || !find_shift(datum_id, wgs84_datum, &shift_id, &cost))
            continue;
        const auto* shift =
            static_cast<const DatumShift*>(find_obj_adr(ObjectType::DatumShift, shift_id, nullptr));
        ASSERT_NE(shift, nullptr);
        double tolerance_m = exact_round_trip_tolerance_m;
        if (shift->op >= seven_parameter_op) {
            const double rho = std::hypot(shift->rotation_x, shift->rotation_y, shift->rotation_z) +
                               std::fabs(shift->scale);
            const double translation_m =
                std::hypot(shift->translation_x, shift->translation_y, shift->translation_z);
            tolerance_m += first_order_margin * rho * (translation_m + rho * semi_major_m);
        }
        SCOPED_TRACE(datum->name ? datum->name : "?");
        ObjectId georeference = 0;
        auto* record = cre_obj<GeoReference>(&georeference);
        ASSERT_NE(record, nullptr);
        record->kind = 1;
        record->datum = datum_id;
        georeference_take_unit(georeference);
        ObjectId chain = 0;
        make_chain(georeference, chain);
        ASSERT_FALSE(error_pending()) << "no chain: code " << gblerr.load();

        // The chain works in the datum's angle unit.
        const double per_degree =
            angle_units[record->unit].factor / angle_units[angle_unit_degree].factor;
        const double longitude = test_longitude_deg * per_degree;
        const double latitude = test_latitude_deg * per_degree;
        const double height = test_height_m;
        double x = longitude;
        double y = latitude;
        double z = height;
        chain_apply_inverse(chain, x, y, z);
        chain_apply(chain, x, y, z);
        const double east_m = (x - longitude) / per_degree * metres_per_degree *
                              std::cos(test_latitude_deg * radians_per_degree);
        const double north_m = (y - latitude) / per_degree * metres_per_degree;
        EXPECT_LT(std::hypot(east_m, north_m), tolerance_m);
        EXPECT_LT(std::fabs(z - height), tolerance_m);
        EXPECT_FALSE(error_pending());
        set_gblerr(ErrorCode::none);
        del_obj(ObjectType::CoordBuffer, chain);
        del_obj(ObjectType::GeoReference, georeference);
        ++datums;
    }
    EXPECT_GT(datums, 300) << "the tables cover the reference's datums";
}

// Each row of each alias file, read back from the file, finds through
// find_alias the object it names. Where rows share a scheme and a text, the
// first of them in the file wins, as the loader enters them in file order.
TEST(SystemTables, EveryAliasRowFindsWhatItNames) {
    load_system_tables();
    struct AliasFile {
        const char* name;
        ObjectType kind;
    };
    const AliasFile files[] = {
        {"ellipsil.txt", ObjectType::Ellipsoid},
        {"pmeridil.txt", ObjectType::PrimeMeridian},
        {"datumil.txt", ObjectType::Datum},
        {"gcentril.txt", ObjectType::DatumShift},
        {"cartpril.txt", ObjectType::ProjectedSystem},
    };
    for (const AliasFile& file : files) {
        SCOPED_TRACE(file.name);
        std::FILE* in = std::fopen((system_tables + file.name).c_str(), "rb");
        ASSERT_NE(in, nullptr);
        std::map<std::pair<int, std::string>, int> first_code;
        int rows = 0;
        int scheme = 0;
        int code = 0;
        char text[256];
        while (std::fscanf(in, "%d;%255[^;];%d\n", &scheme, text, &code) == 3) {
            if (scheme == marker_scheme) continue;
            ++rows;
            EXPECT_NE(find_by_code(file.kind, code), 0) << text << " names code " << code;
            const int expected_code = first_code.try_emplace({scheme, text}, code).first->second;
            EXPECT_EQ(find_alias(file.kind, scheme, text), find_by_code(file.kind, expected_code))
                << "scheme " << scheme << " text " << text;
        }
        EXPECT_TRUE(std::feof(in)) << "a row the scan could not read";
        std::fclose(in);
        EXPECT_GT(rows, 0) << "an alias file without a row";
    }
    EXPECT_FALSE(error_pending());
}

} // namespace
} // namespace norvanta
