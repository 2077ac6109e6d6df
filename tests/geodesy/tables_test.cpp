// The geodetic dictionary: the reading rules of the ten tables (rows dropped,
// errors that end the load), the look-ups, the shifts between datums and their
// shortest path, the GeoReference helpers, the system's own tables, and a
// start-up that cannot find its tables.
#include "geodesy/tables.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <string>

#include <sys/wait.h>

#include <gtest/gtest.h>

#include "core/object_store.h"
#include "geodesy/transforms.h"
#include "shell/errors.h"
#include "shell/main.h"
#include "support/test_home.h"

extern char** environ;

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const private_home = testing::use_private_home_for_this_process();

namespace fs = std::filesystem;

const std::string basic_tables = NORVANTA_TEST_DATA_DIR "/geodesy/basic/";
constexpr double seconds_per_radian = 206264.80624709636;

const char* const table_names[] = {"ellipsoi.txt", "ellipsil.txt", "pmeridian.txt", "pmeridil.txt",
                                   "datum.txt",    "datumil.txt",  "gcentric.txt",  "gcentril.txt",
                                   "cartproj.txt", "cartpril.txt"};

void register_once() {
    static const bool done = [] {
        object_store_create();
        geodesy_register_types();
        transforms_register_types();
        return true;
    }();
    (void)done;
}

template <class T>
const T* record(ObjectId id) {
    return find_obj_adr<T>(id);
}

ObjectId datum(int32_t code) {
    return find_by_code(ObjectType::Datum, code);
}

// Each test starts from the hand-made tables, loaded afresh: find_shift and
// the inverses add records that another test must not see.
class Dictionary : public ::testing::Test {
  protected:
    void SetUp() override {
        register_once();
        set_gblerr(ErrorCode::none);
        geodesy_load_from(basic_tables.c_str());
        ASSERT_FALSE(error_pending()) << "the fixture loads, code " << gblerr.load();
        geodesy_find_wgs84();
    }
    void TearDown() override {
        set_gblerr(ErrorCode::none);
        geodesy_unload();
    }
};

TEST(Units, FactorsAgreeWithTheirDefinitions) {
    struct Row {
        const char* description;
        double factor;
        double expected;
    };
    const double pi = std::numbers::pi;
    const Row rows[] = {
        {"degree", angle_units[1].factor, 180.0 / pi},
        {"grad", angle_units[3].factor, 200.0 / pi},
        {"degree minute second counts seconds", angle_units[2].factor, 648000.0 / pi},
        {"US survey foot", length_units[6].factor, 1200.0 / 3937.0},
        {"the last length unit is never valid", length_units[47].factor, 0.0},
    };
    for (const Row& row : rows)
        EXPECT_NEAR(row.factor, row.expected, 1e-12 * std::fabs(row.expected)) << row.description;
    EXPECT_EQ(angle_units[11].english, nullptr) << "row 11 has no label";
    EXPECT_EQ(length_units[23].english, nullptr) << "rows from 23 on have no label";
}

TEST_F(Dictionary, EllipsoidRowsFollowTheFlatteningRule) {
    const Ellipsoid* axes = record<Ellipsoid>(find_by_code(ObjectType::Ellipsoid, 7));
    const Ellipsoid* both = record<Ellipsoid>(find_by_code(ObjectType::Ellipsoid, 8));
    const Ellipsoid* kilometres = record<Ellipsoid>(find_by_code(ObjectType::Ellipsoid, 9));
    ASSERT_TRUE(axes && both && kilometres);

    const double a = 6378206.4;
    const double b = 6356583.8;
    EXPECT_EQ(axes->inverse_flattening, 0.0) << "given by axes";
    EXPECT_EQ(axes->semi_minor, b);
    EXPECT_NEAR(axes->eccentricity_squared, (a * a - b * b) / (a * a), 1e-15);

    EXPECT_EQ(both->inverse_flattening, 297.0) << "the inverse flattening wins";
    EXPECT_EQ(both->semi_minor, 0.0) << "and the semi-minor is stored as 0";
    EXPECT_NEAR(both->eccentricity_squared, (2.0 * 297.0 - 1.0) / (297.0 * 297.0), 1e-15);

    EXPECT_EQ(kilometres->semi_major, 6378137.0) << "axes are scaled to metres";
    EXPECT_STREQ(kilometres->name, "GRS 1980 in kilometres");
}

TEST_F(Dictionary, RowsWithBadUnitsOrUnknownReferencesAreDropped) {
    struct Row {
        const char* description;
        ObjectType type;
        int32_t code;
        bool present;
    };
    const Row rows[] = {
        {"ellipsoid in unit 47", ObjectType::Ellipsoid, 47, false},
        {"datum on the dropped ellipsoid", ObjectType::Datum, 13, false},
        {"meridian in angle unit 12", ObjectType::PrimeMeridian, 5, false},
        {"datum in angle unit 12", ObjectType::Datum, 15, false},
        {"shift from an unknown datum", ObjectType::DatumShift, 4, false},
        {"shift of method 5", ObjectType::DatumShift, 5, false},
        {"seven parameters in angle unit 12", ObjectType::DatumShift, 7, false},
        {"projection of method 99", ObjectType::ProjectedSystem, 2, false},
        {"a good datum", ObjectType::Datum, 14, true},
        {"a good projection", ObjectType::ProjectedSystem, 1, true},
    };
    for (const Row& row : rows)
        EXPECT_EQ(find_by_code(row.type, row.code) != 0, row.present) << row.description;
    EXPECT_EQ(next_code(ObjectType::Ellipsoid), 35) << "highest code in use plus 1";
    EXPECT_EQ(next_code(ObjectType::NameAlias), 0) << "not a type with codes";
}

TEST_F(Dictionary, ShiftRowsAreBroughtToMetresAndRadians) {
    const DatumShift* seven = record<DatumShift>(find_by_code(ObjectType::DatumShift, 2));
    const DatumShift* ten = record<DatumShift>(find_by_code(ObjectType::DatumShift, 12));
    const DatumShift* meridian = record<DatumShift>(find_by_code(ObjectType::DatumShift, 3));
    ASSERT_TRUE(seven && ten && meridian);

    EXPECT_EQ(seven->source, datum(11));
    EXPECT_DOUBLE_EQ(seven->rotation_z, 0.3 / seconds_per_radian) << "seconds of arc";
    EXPECT_DOUBLE_EQ(seven->scale, 1.5e-6) << "scale flag 2 is parts per million";

    EXPECT_EQ(ten->op, 10);
    EXPECT_DOUBLE_EQ(ten->translation_y, 2 * 0.3048) << "feet";
    EXPECT_DOUBLE_EQ(ten->rotation_x, 4.0) << "radians";
    EXPECT_DOUBLE_EQ(ten->scale, 7.0) << "no flag, a plain ratio";
    EXPECT_DOUBLE_EQ(ten->pivot_z, 300 * 0.3048);

    EXPECT_EQ(meridian->op, 7);
    EXPECT_NEAR(meridian->translation_x, 2.5969213 / angle_units[3].factor, 1e-15)
        << "Paris minus Greenwich";
    EXPECT_EQ(meridian->length_unit, 3) << "the source datum's angle unit";
    EXPECT_EQ(meridian->to_angle_unit, 1) << "the target datum's angle unit";

    const Datum* gamma = record<Datum>(datum(12));
    ASSERT_TRUE(gamma);
    EXPECT_EQ(gamma->prime_meridian, find_by_code(ObjectType::PrimeMeridian, 3));
    EXPECT_NEAR(gamma->prime_meridian_longitude, 2.5969213 / angle_units[3].factor, 1e-15);
    EXPECT_EQ(gamma->ellipsoid_record, record<Ellipsoid>(gamma->ellipsoid));
}

TEST_F(Dictionary, AliasesResolveOnlyUnderTheirSchemeAndKind) {
    struct Row {
        const char* description;
        ObjectType type;
        int32_t scheme;
        const char* text;
        ObjectId expected;
    };
    const Row rows[] = {
        {"datum under NMEA", ObjectType::Datum, 4, "WGS 84", datum(214)},
        {"same text, the ellipsoid", ObjectType::Ellipsoid, 4, "WGS 84",
         find_by_code(ObjectType::Ellipsoid, 34)},
        {"a text of another scheme", ObjectType::Datum, 4, "Beta by Ozi", 0},
        {"the same text under its scheme", ObjectType::Datum, 6, "Beta by Ozi", datum(11)},
        {"a prefix is not the text", ObjectType::Datum, 4, "WGS", 0},
        {"a null text", ObjectType::Datum, 4, nullptr, 0},
    };
    for (const Row& row : rows)
        EXPECT_EQ(find_alias(row.type, row.scheme, row.text), row.expected) << row.description;

    EXPECT_STREQ(get_alias(ObjectType::Datum, 6, 11), "Beta by Ozi");
    EXPECT_STREQ(get_alias(ObjectType::PrimeMeridian, 1, 3), "8903");
    EXPECT_EQ(get_alias(ObjectType::Datum, 5, 10), nullptr) << "no row of that scheme";
}

TEST_F(Dictionary, EllipsoidAndMeridianLookUps) {
    const double a = 6378206.4;
    const double by_axes = a / (a - 6356583.8);
    struct Row {
        const char* description;
        double semi_major;
        double inverse_flattening;
        int32_t expected_code; // 0: none
    };
    const Row rows[] = {
        {"given by axes", a, by_axes, 7},
        {"WGS 84", 6378137.0, 298.257223563, 34},
        {"the second of two equal axes", 6378137.0, 298.257222101, 9},
        {"flattening off by 2e-6", 6378137.0, 298.257223563 + 2e-6, 0},
        {"an axis that is not an exact key", 6378137.0005, 298.257223563, 0},
    };
    for (const Row& row : rows) {
        ObjectId expected =
            row.expected_code ? find_by_code(ObjectType::Ellipsoid, row.expected_code) : 0;
        EXPECT_EQ(find_ellipsoid(row.semi_major, row.inverse_flattening), expected)
            << row.description;
    }
    EXPECT_EQ(find_meridian(2.5969213, 3), find_by_code(ObjectType::PrimeMeridian, 3));
    EXPECT_EQ(find_meridian(0.0, 1), find_by_code(ObjectType::PrimeMeridian, 1));
    EXPECT_EQ(find_meridian(2.59692, 3), 0);
}

// Each row moves one parameter of a table's shift by just under or just over its tolerance.
TEST_F(Dictionary, ShiftEqualsIsStrictWithinEachTolerance) {
    struct Row {
        const char* description;
        int32_t code;
        int index;
        double change;
        bool expected;
    };
    const Row rows[] = {
        {"translation within 1e-6", 1, 0, 0.9e-6, true},
        {"translation off by 1.1e-6", 1, 0, 1.1e-6, false},
        {"rotation within 1e-7 rad", 2, 5, 0.02, true},
        {"rotation off by 0.021\"", 2, 5, 0.021, false},
        {"scale within 1e-14", 2, 6, 0.9e-14, true},
        {"scale off by 2e-14", 2, 6, 2e-14, false},
        {"pivot within 1 cm", 12, 7, 0.03, true},
        {"pivot off by 1.2 cm", 12, 7, 0.04, false},
    };
    for (const Row& row : rows) {
        // As the tables give them: alpha in metres, beta in seconds, the ten in feet and radians.
        double parameters[10] = {-8, 160, 176};
        int32_t length_unit = 0;
        int32_t angle_unit = 4;
        if (row.code == 2) {
            const double beta[10] = {-87, -98, -121, 0.1, 0.2, 0.3, 1.5e-6};
            std::copy(beta, beta + 10, parameters);
        } else if (row.code == 12) {
            const double ten[10] = {1, 2, 3, 4, 5, 6, 7, 100, 200, 300};
            std::copy(ten, ten + 10, parameters);
            length_unit = 1;
            angle_unit = 0;
        }
        parameters[row.index] += row.change;
        EXPECT_EQ(shift_equals(find_by_code(ObjectType::DatumShift, row.code), parameters,
                               length_unit, angle_unit, 0),
                  row.expected)
            << row.description;
    }
    const ObjectId alpha = find_by_code(ObjectType::DatumShift, 1);
    const double inverted[10] = {8, -160, -176};
    const double in_feet[10] = {-8 / 0.3048, 160 / 0.3048, 176 / 0.3048};
    EXPECT_TRUE(shift_equals(alpha, inverted, 0, 4, 1)) << "inverted";
    EXPECT_TRUE(shift_equals(alpha, in_feet, 1, 4, 0)) << "in feet";
}

TEST_F(Dictionary, FindDatumComparesShiftsToWgs84InEitherDirection) {
    ObjectId greenwich = find_by_code(ObjectType::PrimeMeridian, 1);
    ObjectId clarke = find_by_code(ObjectType::Ellipsoid, 7);
    ObjectId international = find_by_code(ObjectType::Ellipsoid, 8);
    const double alpha[3] = {-8, 160, 176};
    const double beta[7] = {-87, -98, -121, 0.1, 0.2, 0.3, 1.5e-6};
    const double nowhere[3] = {1, 2, 3};
    EXPECT_EQ(find_datum(clarke, greenwich, 3, alpha), datum(10));
    EXPECT_EQ(find_datum(international, greenwich, 7, beta), datum(11));
    EXPECT_EQ(find_datum(international, greenwich, 3, beta), 0) << "rotations count as zero";
    EXPECT_EQ(find_datum(clarke, greenwich, 3, nowhere), 0);
    EXPECT_EQ(find_datum(clarke, find_by_code(ObjectType::PrimeMeridian, 3), 3, alpha), 0)
        << "another meridian";

    // A shift given from WGS 84 to the datum is compared through its inverse.
    const double from_wgs84[3] = {-10, -20, -30};
    EXPECT_EQ(find_datum(clarke, greenwich, 3, from_wgs84), datum(23));
    const double reversed[10] = {8, -160, -176};
    ObjectId shift = find_by_code(ObjectType::DatumShift, 1);
    ObjectId inverse = shift_inverse(shift);
    ASSERT_NE(inverse, 0);
    EXPECT_TRUE(shift_equals(inverse, reversed, 0, 4, 0));
}

TEST_F(Dictionary, InverseShiftsNegateAndAreMadeOnce) {
    ObjectId seven_id = find_by_code(ObjectType::DatumShift, 2);
    ObjectId inverse_id = shift_inverse(seven_id);
    const DatumShift* seven = record<DatumShift>(seven_id);
    const DatumShift* inverse = record<DatumShift>(inverse_id);
    ASSERT_TRUE(seven && inverse);
    EXPECT_EQ(inverse->translation_x, -seven->translation_x);
    EXPECT_EQ(inverse->rotation_y, -seven->rotation_y);
    EXPECT_EQ(inverse->scale, -seven->scale);
    EXPECT_EQ(shift_inverse(seven_id), inverse_id) << "remembered";
    EXPECT_EQ(shift_inverse(inverse_id), seven_id) << "at both ends";
    const DatumShift* meridian =
        record<DatumShift>(shift_inverse(find_by_code(ObjectType::DatumShift, 3)));
    ASSERT_TRUE(meridian);
    EXPECT_NEAR(meridian->translation_x, -2.5969213 / angle_units[3].factor, 1e-15);
    EXPECT_EQ(find_shift(datum(11), datum(12), nullptr, nullptr), true)
        << "the inverse joined the indexes";

    // One step takes the shift or its inverse and leaves the cost alone.
    ObjectId shift = 0;
    int32_t cost = -7;
    ASSERT_TRUE(find_shift(datum(214), datum(10), &shift, &cost));
    EXPECT_EQ(shift, shift_inverse(find_by_code(ObjectType::DatumShift, 1)));
    EXPECT_EQ(cost, -7);
}

TEST_F(Dictionary, FindShiftComposesThroughWgs84BySummingParameters) {
    const int32_t codes_before = next_code(ObjectType::DatumShift);
    EXPECT_TRUE(find_shift(datum(10), datum(11), nullptr, nullptr)) << "existence test";
    EXPECT_EQ(next_code(ObjectType::DatumShift), codes_before) << "which makes nothing";

    ObjectId shift = 0;
    int32_t cost = 0;
    ASSERT_TRUE(find_shift(datum(10), datum(11), &shift, &cost));
    const DatumShift* composite = record<DatumShift>(shift);
    ASSERT_TRUE(composite);
    EXPECT_EQ(composite->op, 9) << "the larger of translation and seven parameters";
    EXPECT_EQ(cost, 20 + 30 - 1);
    EXPECT_DOUBLE_EQ(composite->translation_x, -8 + 87);
    EXPECT_DOUBLE_EQ(composite->translation_z, 176 + 121);
    EXPECT_DOUBLE_EQ(composite->scale, -1.5e-6);

    ObjectId again = 0;
    int32_t second_cost = -7;
    ASSERT_TRUE(find_shift(datum(10), datum(11), &again, &second_cost));
    EXPECT_EQ(again, shift) << "cheaper by one, the composite is the next search's one step";
}

TEST_F(Dictionary, FindShiftTieGoesToTheHighestCode) {
    // Fork reaches WGS 84 through Left (code 20) or Right (code 21) at equal cost;
    // Right is closed first and keeps Fork.
    ObjectId shift = 0;
    int32_t cost = 0;
    ASSERT_TRUE(find_shift(datum(22), datum(214), &shift, &cost));
    const DatumShift* composite = record<DatumShift>(shift);
    ASSERT_TRUE(composite);
    EXPECT_EQ(cost, 19);
    EXPECT_EQ(composite->op, 8);
}

TEST_F(Dictionary, FindShiftFailsWithoutAChain) {
    struct Row {
        const char* description;
        ObjectId from;
        ObjectId to;
    };
    const Row rows[] = {
        {"a datum with no shift", datum(14), datum(214)},
        {"a null datum", 0, datum(214)},
    };
    for (const Row& row : rows) {
        ObjectId shift = 99;
        EXPECT_FALSE(find_shift(row.from, row.to, &shift, nullptr)) << row.description;
        EXPECT_FALSE(find_shift(row.from, row.to, nullptr, nullptr)) << row.description;
    }
    EXPECT_FALSE(error_pending());
}

TEST_F(Dictionary, GeoReferencesTakeAndFixTheirUnits) {
    ObjectId reference_id = 0;
    make_default_georeference(reference_id);
    const GeoReference* reference = record<GeoReference>(reference_id);
    ASSERT_TRUE(reference);
    EXPECT_EQ(reference->kind, 1);
    EXPECT_EQ(reference->datum, wgs84_datum);
    EXPECT_EQ(reference->unit, 1) << "from the Datum";
    georeference_fix_units(reference_id);
    EXPECT_EQ(reference->pre_transform, 0) << "units agree: nothing to do";

    auto fresh = [&](int32_t kind, int32_t unit) {
        GeoReference* made = cre_obj<GeoReference>(&reference_id);
        made->kind = kind;
        made->unit = unit;
        return made;
    };
    // Stored in degrees on a datum kept in grads.
    GeoReference* in_degrees = fresh(1, 1);
    in_degrees->datum = datum(12);
    georeference_fix_units(reference_id);
    EXPECT_EQ(in_degrees->unit, 3);
    EXPECT_EQ(in_degrees->pre_op, 2);
    const ScaleRecord* scale = record<ScaleRecord>(in_degrees->pre_transform);
    ASSERT_TRUE(scale);
    EXPECT_DOUBLE_EQ(scale->factor_x, 200.0 / 180.0) << "90 degrees are 100 grads";
    EXPECT_DOUBLE_EQ(scale->factor_y, 200.0 / 180.0);
    EXPECT_EQ(scale->factor_z, 1.0);

    // Stored in feet on a system in metres.
    GeoReference* in_feet = fresh(2, 1);
    in_feet->projected = find_by_code(ObjectType::ProjectedSystem, 1);
    georeference_fix_units(reference_id);
    EXPECT_EQ(in_feet->unit, 0);
    scale = record<ScaleRecord>(in_feet->pre_transform);
    ASSERT_TRUE(scale);
    EXPECT_DOUBLE_EQ(scale->factor_x, 0.3048);

    fresh(1, 4);
    georeference_fix_units(reference_id);
    EXPECT_EQ(current_error(), ErrorCode::geographic) << "no Datum";
}

TEST_F(Dictionary, CustomDatumsAreFoundOrMadeOnce) {
    const double a = 6378206.4;
    const double clarke[2] = {a, a / (a - 6356583.8)};
    const double alpha_shift[3] = {-8, 160, 176};
    ObjectId found = 0;
    make_custom_datum(clarke, alpha_shift, found);
    EXPECT_EQ(found, datum(10)) << "an existing datum is found";

    const double odd[2] = {6378000.0, 299.0};
    const double odd_shift[3] = {5, 6, 7};
    const int32_t ellipsoid_code = next_code(ObjectType::Ellipsoid);
    ObjectId made = 0;
    make_custom_datum(odd, odd_shift, made);
    const Datum* custom = record<Datum>(made);
    ASSERT_TRUE(custom);
    EXPECT_STREQ(custom->name, "GTM custom datum");
    EXPECT_EQ(custom->angle_unit, 1);
    EXPECT_EQ(custom->code, 215);
    const Ellipsoid* ellipsoid = record<Ellipsoid>(custom->ellipsoid);
    ASSERT_TRUE(ellipsoid);
    EXPECT_STREQ(ellipsoid->name, "GTM custom ellipsoid");
    EXPECT_EQ(ellipsoid->code, ellipsoid_code);
    EXPECT_DOUBLE_EQ(ellipsoid->eccentricity_squared, (2.0 * 299.0 - 1.0) / (299.0 * 299.0));

    ObjectId shift = 0;
    ASSERT_TRUE(find_shift(made, wgs84_datum, &shift, nullptr));
    const DatumShift* link = record<DatumShift>(shift);
    ASSERT_TRUE(link);
    EXPECT_EQ(link->op, 8);
    EXPECT_EQ(link->cost, 60);
    EXPECT_EQ(link->translation_y, 6.0);

    ObjectId again = 0;
    make_custom_datum(odd, odd_shift, again);
    EXPECT_EQ(again, made) << "the second file finds the first one's datum";
}

// ---- reading errors ----

// A copy of the hand-made tables in which one file is changed or missing.
TEST(BrokenTables, AMissingFileOrABadRowEndsTheLoad) {
    register_once();
    struct Row {
        const char* description;
        const char* file;
        bool missing;
        std::string content;
        ErrorCode expected;
        bool datums_read; // the load reached datum.txt and took its rows
        bool shifts_read;
    };
    const std::string long_name(300, 'n');
    const Row rows[] = {
        {"missing ellipsoids", "ellipsoi.txt", true, "", ErrorCode::file_access, false, false},
        {"missing last alias file", "cartpril.txt", true, "", ErrorCode::file_access, true, true},
        {"a short datum row after a good one", "datum.txt", false,
         "214;WGS 84;34;1;1;0\n99;Short;34;1\n", ErrorCode::invalid_file, true, false},
        {"letters for a number", "gcentric.txt", false,
         "1;10;214;three;-8;160;176;0;0;0;0;0;0;0;0;4;0;20;0;0\n", ErrorCode::invalid_file, true,
         false},
        {"a name over 255 bytes", "datum.txt", false,
         "214;WGS 84;34;1;1;0\n1;" + long_name + ";34;1;1;0\n", ErrorCode::invalid_file, true,
         false},
        {"blank lines and no final line feed are harmless", "datumil.txt", false,
         "\n4;WGS 84;214\n\n  \n6;WGS 84;214", ErrorCode::none, true, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        testing::TestHome copy;
        for (const char* name : table_names)
            fs::copy_file(basic_tables + name, copy.file(name));
        if (row.missing)
            fs::remove(copy.file(row.file));
        else
            testing::write_file(copy.file(row.file), row.content);
        set_gblerr(ErrorCode::none);
        geodesy_load_from(copy.path().c_str());
        EXPECT_EQ(current_error(), row.expected);
        set_gblerr(ErrorCode::none);
        EXPECT_EQ(find_by_code(ObjectType::Datum, 214) != 0, row.datums_read);
        EXPECT_EQ(find_by_code(ObjectType::DatumShift, 1) != 0, row.shifts_read);
        geodesy_unload();
    }
}

// ---- the system's own tables ----

TEST(SystemTables, LoadWithTheCodesOthersRelyOn) {
    register_once();
    set_gblerr(ErrorCode::none);
    geodesy_load_from(NORVANTA_SYSTEM_SOURCE_DIR "/");
    ASSERT_FALSE(error_pending()) << "code " << gblerr.load();
    geodesy_find_wgs84();

    const Ellipsoid* wgs84_ellipsoid = record<Ellipsoid>(find_by_code(ObjectType::Ellipsoid, 34));
    ASSERT_TRUE(wgs84_ellipsoid && record<Datum>(wgs84_datum));
    EXPECT_EQ(wgs84_ellipsoid->inverse_flattening, 298.257223563);
    EXPECT_EQ(record<Datum>(wgs84_datum)->code, 214);
    EXPECT_EQ(record<Datum>(wgs84_datum)->ellipsoid_record, wgs84_ellipsoid);
    EXPECT_EQ(record<PrimeMeridian>(find_by_code(ObjectType::PrimeMeridian, 1))->longitude, 0.0);
    EXPECT_EQ(find_alias(ObjectType::Datum, alias_scheme_nmea, "WGS 84"), wgs84_datum);

    // Every datum that has a shift reaches WGS 84.
    int with_shift = 0;
    ObjectId shift_id = 0;
    void* address = nullptr;
    while (next_obj(ObjectType::DatumShift, shift_id, &address) && shift_id != 0) {
        const auto* shift = static_cast<const DatumShift*>(address);
        for (ObjectId end : {shift->source, shift->target}) {
            if (end == wgs84_datum) continue;
            ++with_shift;
            const Datum* named = record<Datum>(end);
            EXPECT_TRUE(find_shift(end, wgs84_datum, nullptr, nullptr))
                << (named && named->name ? named->name : "?");
        }
    }
    EXPECT_GT(with_shift, 100) << "the tables cover the reference's datums";
    EXPECT_FALSE(error_pending());
    geodesy_unload();
}

// ---- start-up without the tables ----

// The program runs from a directory of its own whose system/ holds the tables
// as edited, without the user's language; gives its exit status, its standard
// error and its log.
struct StartUpResult {
    int status = -1;
    std::string error_output;
    std::string log;
};

StartUpResult start_with_tables(const char* missing_table, const char* broken_table,
                                int broken_line) {
    StartUpResult result;
    testing::TestHome place;
    testing::TestHome home;
    const std::string program = place.file("norvanta-cli");
    fs::copy_file(NORVANTA_CLI_PATH, program);
    fs::permissions(program, fs::perms::owner_all);
    fs::create_directory(place.file("system"));
    for (const auto& entry : fs::directory_iterator(NORVANTA_SYSTEM_SOURCE_DIR)) {
        const std::string name = entry.path().filename().string();
        if (!name.ends_with(".txt") || name == missing_table) continue;
        std::string content = testing::read_file(entry.path().string());
        if (name == broken_table) {
            // The line becomes a row of too few fields.
            std::size_t at = 0;
            for (int line = 1; line < broken_line; ++line)
                at = content.find('\n', at) + 1;
            content.replace(at, content.find('\n', at) - at, "7;broken row");
        }
        testing::write_file(place.file("system/" + name), content);
    }
    testing::write_file(home.file("norvanta.cfg"), "LOGERROR\n");

    std::string command = "env";
    for (char** variable = environ; *variable; ++variable) {
        const std::string text(*variable);
        if (text.starts_with("LANG=") || text.starts_with("LC_"))
            command += " -u " + text.substr(0, text.find('='));
    }
    // A start-up that goes on without its tables is killed after 30 s (status 137).
    command += " NORVANTA_HOME=" + home.path() + " timeout -s KILL 30 " + program +
               " </dev/null >/dev/null 2>" + home.file("stderr.txt");
    const int raw = std::system(command.c_str());
    if (WIFEXITED(raw)) result.status = WEXITSTATUS(raw);
    result.error_output = testing::read_file(home.file("stderr.txt"));
    for (const auto& entry : fs::directory_iterator(home.file("logs")))
        result.log += testing::read_file(entry.path().string());
    return result;
}

TEST(StartUp, ABadTableStopsStartUpNamingTheFileAndLine) {
    struct Row {
        const char* description;
        const char* missing_table;
        const char* broken_table;
        int broken_line;
        const char* log_code;
        const char* named;
    };
    const Row rows[] = {
        {"a missing table", "ellipsoi.txt", "", 0, "\nErreur d'init : 2\n", "system/ellipsoi.txt"},
        {"a row of too few fields", "", "datum.txt", 3, "\nErreur d'init : 14\n",
         "datum.txt, line 3"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.description);
        const StartUpResult result =
            start_with_tables(row.missing_table, row.broken_table, row.broken_line);
        EXPECT_EQ(result.status, fatal_init_status);
        EXPECT_NE(result.error_output.find("Erreur lors de l'initialisation"), std::string::npos)
            << result.error_output;
        EXPECT_NE(result.error_output.find(row.named), std::string::npos)
            << "standard error names what failed\n"
            << result.error_output;
        EXPECT_NE(result.log.find(row.log_code), std::string::npos) << result.log;
        EXPECT_NE(result.log.find(row.named), std::string::npos) << "the log names what failed\n"
                                                                 << result.log;
    }
}

} // namespace
} // namespace norvanta
