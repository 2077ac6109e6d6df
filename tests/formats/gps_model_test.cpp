// Tests of the GPS records: creators' defaults and links, the duplicate rule
// of merged waypoints, the finishing passes, the point-list helpers, the file
// information texts, ownership on deletion, and the waypoint symbol images.
#include "formats/gps_model.h"

#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/strings.h"
#include "shell/config.h"
#include "shell/errors.h"
#include "support/fresh_process.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

void set_up_store_once() {
    static const bool done = [] {
        object_store_create();
        gps_model_register_types();
        return true;
    }();
    (void)done;
}

int32_t live_count(ObjectType type) {
    int32_t count = 0;
    for (ObjectId id = 0; next_obj(type, id, nullptr), id != 0;)
        ++count;
    return count;
}

std::wstring text_of(const wchar_t* text) {
    return text ? std::wstring(text) : std::wstring(L"<null>");
}

class GpsModel : public ::testing::Test {
  protected:
    void SetUp() override {
        set_up_store_once();
        set_gblerr(ErrorCode::none);
        ds_create(set_);
    }
    void TearDown() override {
        set_gblerr(ErrorCode::none);
        ds_delete_tree(set_);
        ds_destroy(set_);
    }

    ObjectId nested_set() {
        ObjectId child = 0;
        ds_create(child);
        ds_add_set(set_, child);
        return child;
    }
    TrackPoint* track_point(double longitude, double latitude, double date,
                            TrackSegment* segment = nullptr, ObjectId in = 0) {
        return new_track_point(longitude, latitude, JulianTime{date, 0.0}, 0.0, segment, 0,
                               in ? in : set_);
    }

    ObjectId set_ = 0;
};

TEST_F(GpsModel, CreatorsGiveEachTypeItsDefaults) {
    point_of_interest_color = Rgb{1, 2, 3};
    struct Row {
        const char* legend;
        ObjectType type;
        Rgb color;
    };
    const Row rows[] = {
        {"waypoint", ObjectType::Waypoint, {255, 128, 0}},
        {"point of interest: the viewer's colour", ObjectType::PointOfInterest, {1, 2, 3}},
        {"course point", ObjectType::CoursePoint, {255, 0, 0}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        ObjectId id = 0;
        Waypoint* point = new_point(row.type, set_, &id);
        ASSERT_NE(point, nullptr);
        EXPECT_EQ(point->type, row.type);
        EXPECT_EQ(point->color.red, row.color.red);
        EXPECT_EQ(point->color.green, row.color.green);
        EXPECT_EQ(point->color.blue, row.color.blue);
        EXPECT_EQ(ds_count(set_, row.type), 1);
    }
    point_of_interest_color = Rgb{};

    ObjectId id = 0;
    new_route(0, &id);
    EXPECT_EQ(ds_count(set_, ObjectType::Route), 0) << "no set given, none joined";
    del_obj(ObjectType::Route, id);

    const int32_t members = ds_count(set_, ObjectType::None);
    const int32_t tracks = live_count(ObjectType::Track);
    id = 7;
    EXPECT_EQ(new_point(ObjectType::Track, set_, &id), nullptr);
    EXPECT_EQ(current_error(), ErrorCode::wrong_parameters);
    EXPECT_EQ(id, 0);
    set_gblerr(ErrorCode::none);
    ObjectId gone = 0;
    ds_create(gone);
    const ObjectId stale = gone;
    ds_destroy(gone);
    EXPECT_EQ(new_track(stale, &id), nullptr) << "a set that is gone";
    EXPECT_EQ(id, 0);
    set_gblerr(ErrorCode::none);
    EXPECT_EQ(ds_count(set_, ObjectType::None), members) << "failures add nothing";
    EXPECT_EQ(live_count(ObjectType::Track), tracks) << "the record for a set that is gone";
}

TEST_F(GpsModel, WaypointFromBytesOrWideIsTheSame) {
    ObjectId narrow_id = 0;
    const Waypoint* narrow =
        new_waypoint(1.5, -2.5, "Cap", nullptr, 6, display_name, 12.0, set_, &narrow_id);
    const Waypoint* wide = new_waypoint(1.5, -2.5, L"Cap", nullptr, 6, display_name, 12.0, set_);
    for (const Waypoint* point : {narrow, wide}) {
        ASSERT_NE(point, nullptr);
        EXPECT_EQ(text_of(point->name), L"Cap");
        EXPECT_EQ(point->comment, nullptr) << "an absent comment stays null";
        EXPECT_EQ(text_of(point->label), L" Cap");
    }
    EXPECT_EQ(ds_count(set_, ObjectType::Waypoint), 2);
    EXPECT_EQ(get_obj_adr<Waypoint>(narrow_id), narrow);
}

TEST_F(GpsModel, LabelFollowsTheDisplayMode) {
    struct Row {
        const char* legend;
        int32_t mode;
        const wchar_t* name;
        const wchar_t* comment;
        const wchar_t* label;
    };
    const Row rows[] = {
        {"name shown", display_name, L"Bay", L"calm", L" Bay"},
        {"symbol only, whatever the name", display_symbol_only, L"Bay", L"calm", L""},
        {"comment shown", display_comment, L"Bay", L"calm", L" calm"},
        {"comment shown but absent", display_comment, L"Bay", nullptr, L""},
        {"no name", display_name, nullptr, L"calm", L""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        Waypoint* point = new_waypoint(0.0, 0.0, L"old", nullptr, 0, display_name, 0.0, set_);
        ASSERT_NE(point, nullptr);
        free_mem(point->name);
        if (row.name) wstr_copy(row.name, point->name);
        if (row.comment) wstr_copy(row.comment, point->comment);
        point->display_mode = row.mode;
        rebuild_label(*point);
        EXPECT_EQ(text_of(point->label), row.label);
    }
}

TEST_F(GpsModel, SegmentsChainBehindThePreviousOrBecomeTheFirst) {
    ObjectId track_id = 0;
    const Track* track = new_track(set_, &track_id);
    ObjectId first = 0, second = 0, third = 0;
    const TrackSegment* head = new_segment(0, track_id, set_, &first);
    ASSERT_NE(head, nullptr);
    new_segment(first, track_id, set_, &second);
    EXPECT_EQ(head->track, track_id);
    EXPECT_EQ(track->first_segment, first);
    EXPECT_EQ(head->next, second);
    new_segment(0, track_id, set_, &third);
    EXPECT_EQ(track->first_segment, third) << "no previous: the first segment is replaced";

    ObjectId stale = 0;
    new_segment(0, 0, 0, &stale);
    del_obj(ObjectType::TrackSegment, stale);
    ObjectId made = 9;
    EXPECT_EQ(new_segment(stale, track_id, set_, &made), nullptr);
    EXPECT_EQ(current_error(), ErrorCode::object_internal);
    EXPECT_EQ(made, 0);
    set_gblerr(ErrorCode::none);
    EXPECT_EQ(ds_count(set_, ObjectType::TrackSegment), 3);
    EXPECT_EQ(track->first_segment, third);
}

TEST_F(GpsModel, TrackPointsJoinTheirSegmentListWithTheirType) {
    ObjectId track_id = 0;
    new_track(set_, &track_id);
    TrackSegment* segment = new_segment(0, track_id, set_);
    const TrackPoint* a =
        new_track_point(3.0, 4.0, JulianTime{20071219.5, 19.5}, 8.0, segment, track_id, set_);
    const TrackPoint* b = track_point(5.0, 6.0, 0.0, segment);
    const TrackPoint* loose = track_point(7.0, 8.0, 0.0);
    ASSERT_EQ(pair_list_count(segment->points), 2);
    EXPECT_EQ(segment->points->pairs[0].key, static_cast<intptr_t>(ObjectType::TrackPoint));
    EXPECT_EQ(segment->points->pairs[0].value, reinterpret_cast<intptr_t>(a));
    EXPECT_EQ(segment->points->pairs[1].value, reinterpret_cast<intptr_t>(b));
    EXPECT_NE(loose, nullptr);
    EXPECT_EQ(ds_count(set_, ObjectType::TrackPoint), 3) << "a point with no segment is kept";
}

TEST_F(GpsModel, MergeWaypointDropsOnlyTheSameNameAtTheSamePlace) {
    ObjectId index = 0;
    oset_create(0, 0, ObjectType::Waypoint, FieldKind::wide_string, offsetof(Waypoint, name),
                index);
    struct Row {
        const char* legend;
        const wchar_t* name;
        double latitude;
        bool kept;
    };
    const Row rows[] = {
        {"first of its name", L"Buoy", 45.0, true},
        {"same name, same place", L"Buoy", 45.0, false},
        {"same name, another latitude", L"Buoy", 45.000001, true},
        {"same place, name in another case", L"BUOY", 45.0, true},
        {"same as the third", L"Buoy", 45.000001, false},
    };
    std::vector<ObjectId> kept;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        ObjectId id = 0;
        new_waypoint(-4.0, row.latitude, row.name, nullptr, 0, display_name, 0.0, set_, &id);
        ObjectId result = 0;
        const Waypoint* merged = merge_waypoint(index, id, set_, &result);
        ASSERT_NE(merged, nullptr);
        EXPECT_EQ(result == id, row.kept);
        EXPECT_EQ(exist_obj(ObjectType::Waypoint, id), row.kept);
        EXPECT_EQ(merged->latitude, row.latitude);
        if (row.kept) kept.push_back(id);
    }
    EXPECT_EQ(ds_count(set_, ObjectType::Waypoint), static_cast<int32_t>(kept.size()));
    EXPECT_EQ(oset_count(index), static_cast<int32_t>(kept.size()));

    ObjectId again = 0;
    new_waypoint(-4.0, 45.0, L"Buoy", nullptr, 0, display_name, 0.0, 0, &again);
    ObjectId result = 0;
    merge_waypoint(0, again, set_, &result);
    EXPECT_EQ(result, again) << "with no index a waypoint is always kept";
    EXPECT_EQ(ds_count(set_, ObjectType::Waypoint), static_cast<int32_t>(kept.size()) + 1);
    oset_delete(index);
}

TEST_F(GpsModel, DropEmptyRoutesReachesNestedSets) {
    ObjectId full = 0, empty = 0, nested_empty = 0;
    Route* route = new_route(set_, &full);
    append_point(route->points, new_waypoint(1.0, 1.0, L"A", nullptr, 0, 0, 0.0, set_));
    new_route(set_, &empty);
    const ObjectId child = nested_set();
    new_route(child, &nested_empty);

    drop_empty_routes(set_);
    EXPECT_TRUE(exist_obj(ObjectType::Route, full));
    EXPECT_FALSE(exist_obj(ObjectType::Route, empty));
    EXPECT_FALSE(exist_obj(ObjectType::Route, nested_empty));
    EXPECT_EQ(ds_count_tree(set_, ObjectType::Route), 1);
    EXPECT_EQ(ds_count(child, ObjectType::None), 0) << "a set of empty routes ends empty";
    EXPECT_FALSE(error_pending());
}

TEST_F(GpsModel, CentersAreTheMeanOfAllPointsOfTheChain) {
    ObjectId track_id = 0;
    const Track* track = new_track(set_, &track_id);
    ObjectId first = 0;
    TrackSegment* one = new_segment(0, track_id, set_, &first);
    track_point(0.0, 10.0, 0.0, one);
    track_point(2.0, 20.0, 0.0, one);
    TrackSegment* two = new_segment(first, track_id, set_);
    track_point(7.0, 30.0, 0.0, two);
    ObjectId route_id = 0;
    Route* route = new_route(nested_set(), &route_id);
    append_point(route->points, new_waypoint(-1.0, 1.0, L"A", nullptr, 0, 0, 0.0, set_));
    append_point(route->points, new_waypoint(-3.0, 5.0, L"B", nullptr, 0, 0, 0.0, set_));
    const Route* bare = new_route(set_);

    finish_tracks(set_, false);
    EXPECT_EQ(track->center.longitude, 0.0) << "no centers without the flag";
    finish_tracks(set_, true);
    EXPECT_DOUBLE_EQ(track->center.longitude, 3.0) << "mean of points, not of segments";
    EXPECT_DOUBLE_EQ(track->center.latitude, 20.0);
    finish_routes(set_, ObjectType::Route, true);
    EXPECT_DOUBLE_EQ(route->center.longitude, -2.0);
    EXPECT_DOUBLE_EQ(route->center.latitude, 3.0);
    EXPECT_EQ(bare->center.longitude, 0.0);
    EXPECT_EQ(bare->center.latitude, 0.0);
}

TEST_F(GpsModel, MeanPositionReadsEveryPointTypeAtItsOwnPlace) {
    PairList* list = nullptr;
    EXPECT_EQ(mean_position(list).longitude, 0.0);
    append_point(list, new_waypoint(10.0, 20.0, L"W", nullptr, 0, 0, 0.0, set_));
    append_point(list, track_point(30.0, 40.0, 0.0));
    auto* sample = cre_obj<NavSample>();
    sample->longitude = 50.0;
    sample->latitude = 60.0;
    ds_add(set_, ObjectType::NavSample, sample->id);
    append_point(list, sample);
    auto* vertex = cre_obj<LinePoint>();
    vertex->longitude = -86.0;
    vertex->latitude = -112.0;
    ds_add(set_, ObjectType::LinePoint, vertex->id);
    append_point(list, vertex);
    const LonLat mean = mean_position(list);
    EXPECT_DOUBLE_EQ(mean.longitude, 1.0);
    EXPECT_DOUBLE_EQ(mean.latitude, 2.0);
    pair_list_free(list);
}

TEST_F(GpsModel, HasTimesNeedsTenPointsMostlyTimed) {
    struct Row {
        const char* legend;
        int untimed;
        int timed;
        double timed_date;
        bool expected;
    };
    const Row rows[] = {
        {"nine timed points", 0, 9, 20070101.5, false},
        {"ten, six timed", 4, 6, 20070101.5, true},
        {"ten, exactly half timed", 5, 5, 20070101.5, false},
        {"the first date that counts", 0, 10, 19000101.0, true},
        {"just before it", 0, 10, 19000100.999, false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        PairList* list = nullptr;
        for (int i = 0; i < row.untimed; ++i)
            append_point(list, track_point(0.0, 0.0, 0.0));
        for (int i = 0; i < row.timed; ++i)
            append_point(list, track_point(0.0, 0.0, row.timed_date));
        EXPECT_EQ(has_times(list), row.expected);
        pair_list_free(list);
    }
}

TEST_F(GpsModel, CloseLoopAppendsTheFirstPointWhenTheEndsDiffer) {
    struct Row {
        const char* legend;
        std::vector<double> altitudes; // one vertex each, all at 1, 2
        int32_t count_after;
    };
    const Row rows[] = {
        {"ends differ in altitude only", {0.0, 0.0, 5.0}, 4},
        {"ends equal", {3.0, 0.0, 3.0}, 3},
        {"one point", {0.0}, 1},
        {"no point", {}, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        ObjectId line_id = 0;
        auto* line = cre_obj<FreeLine>(&line_id);
        ds_add(set_, ObjectType::FreeLine, line_id);
        for (double altitude : row.altitudes) {
            auto* vertex = cre_obj<LinePoint>();
            *vertex = LinePoint{vertex->id, vertex->type, 1.0, 2.0, altitude};
            ds_add(set_, ObjectType::LinePoint, vertex->id);
            append_point(line->points, vertex);
        }
        close_loop(ObjectType::FreeLine, line_id);
        ASSERT_EQ(pair_list_count(line->points), row.count_after);
        if (row.count_after > static_cast<int32_t>(row.altitudes.size())) {
            EXPECT_EQ(line->points->pairs[row.count_after - 1].value, line->points->pairs[0].value);
        }
    }
}

TEST_F(GpsModel, FirstPositionObjectPrefersWaypointsThenTrackPoints) {
    EXPECT_EQ(first_position_object(set_), 0) << "an empty set holds no GPS data";
    ObjectId sample = 0;
    cre_obj<NavSample>(&sample);
    ds_add(set_, ObjectType::NavSample, sample);
    ObjectType type = ObjectType::None;
    EXPECT_EQ(first_position_object(set_, &type), sample);
    EXPECT_EQ(type, ObjectType::NavSample);
    const ObjectId child = nested_set();
    const TrackPoint* point = track_point(0.0, 0.0, 0.0, nullptr, child);
    EXPECT_EQ(first_position_object(set_, &type), point->id) << "found in a nested set";
    ObjectId waypoint = 0;
    new_waypoint(0.0, 0.0, L"W", nullptr, 0, 0, 0.0, set_, &waypoint);
    EXPECT_EQ(first_position_object(set_, &type), waypoint);
    EXPECT_EQ(type, ObjectType::Waypoint);
}

TEST_F(GpsModel, DescribeCountsEachKindInBothLanguages) {
    const ObjectId child = nested_set();
    new_waypoint(0.0, 0.0, L"A", nullptr, 0, 0, 0.0, set_);
    new_waypoint(0.0, 0.0, L"B", nullptr, 0, 0, 0.0, child);
    new_route(child);
    ObjectId track_id = 0;
    new_track(set_, &track_id);
    TrackSegment* segment = new_segment(0, track_id, child);
    for (int i = 0; i < 3; ++i)
        track_point(0.0, 0.0, 0.0, segment, child);
    new_point(ObjectType::PointOfInterest, set_);
    ds_add(child, ObjectType::LineOfInterest, cre_obj<LineOfInterest>()->id);
    ds_add(set_, ObjectType::FreeLine, cre_obj<FreeLine>()->id);
    for (int i = 0; i < 3; ++i) {
        ObjectId vertex = 0;
        cre_obj<LinePoint>(&vertex);
        ds_add(child, ObjectType::LinePoint, vertex);
    }
    ObjectId no_tracks = 0;
    ds_create(no_tracks);
    ds_add_set(set_, no_tracks);
    ObjectId samples = 0;
    ds_create(samples);
    ds_add_set(set_, samples);
    for (int i = 0; i < 2; ++i) {
        ObjectId sample = 0;
        cre_obj<NavSample>(&sample);
        ds_add(samples, ObjectType::NavSample, sample);
    }
    new_route(samples);
    new_route(no_tracks);
    new_segment(0, 0, no_tracks);

    using Describe = void (*)(ObjectId, char*&, int);
    struct Row {
        const char* legend;
        Describe describe;
        ObjectId data_set;
        const char* french;
        const char* english;
    };
    const Row rows[] = {
        {"gps", describe_gps, set_,
         "\nNombre de waypoints\n2\nNombre de tracklogs\n1\nNombre de tracksegments\n2"
         "\nNombre de trackpoints\n3\nNombre de routes\n3",
         "\nNumber of waypoints\n2\nNumber of tracklogs\n1\nNumber of tracksegments\n2"
         "\nNumber of trackpoints\n3\nNumber of routes\n3"},
        {"segments without a track are not told", describe_gps, no_tracks, "\nNombre de routes\n1",
         "\nNumber of routes\n1"},
        {"interest", describe_interest, set_,
         "\nNombre de Points d'Interet\n1\nNombre de Lignes d'Interet\n2"
         "\nNombre de points de ligne\n3",
         "\nNumber of Points Of Interest\n1\nNumber of Lines Of Interest\n2"
         "\nNumber of line points\n3"},
        {"log: routes only under waypoints", describe_log, samples, "\nNombre de positions GPS\n2",
         "\nNumber of GPS positions\n2"},
        {"log", describe_log, set_,
         "\nNombre de positions GPS\n2\nNombre de waypoints\n2\nNombre de routes\n3",
         "\nNumber of GPS positions\n2\nNumber of waypoints\n2\nNumber of routes\n3"},
        {"nothing to tell", describe_interest, no_tracks, "", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.legend);
        char* text = nullptr;
        str_copy("Nom\nx", text);
        row.describe(row.data_set, text, 1);
        EXPECT_EQ(std::string(text), std::string("Nom\nx") + row.french);
        free_mem(text);
        row.describe(row.data_set, text, 2);
        EXPECT_EQ(std::string(text ? text : ""), row.english);
        free_mem(text);
    }
}

TEST_F(GpsModel, ListsAreFreedWithoutThePointsTheyName) {
    ObjectId route_id = 0, segment_id = 0, list_id = 0, waypoint_id = 0, point_id = 0;
    Route* route = new_route(set_, &route_id);
    wstr_copy(L"route", route->name);
    append_point(route->points, new_waypoint(0.0, 0.0, "W", "c", 0, 0, 0.0, set_, &waypoint_id));
    TrackSegment* segment = new_segment(0, 0, set_, &segment_id);
    new_track_point(0.0, 0.0, JulianTime{}, 0.0, segment, 0, set_, &point_id);
    PositionList* list = new_position_list(ObjectType::NavSample, set_, &list_id);
    ObjectId sample_id = 0;
    append_point(list->points, cre_obj<NavSample>(&sample_id));
    ds_add(set_, ObjectType::NavSample, sample_id);

    del_obj(ObjectType::Route, route_id);
    del_obj(ObjectType::TrackSegment, segment_id);
    del_obj(ObjectType::PositionList, list_id);
    EXPECT_TRUE(exist_obj(ObjectType::Waypoint, waypoint_id));
    EXPECT_TRUE(exist_obj(ObjectType::TrackPoint, point_id));
    EXPECT_TRUE(exist_obj(ObjectType::NavSample, sample_id));
    // The rest, strings and lists included, goes with the tree (checked by
    // the leak checker of the sanitizer build).
    FreeLine* line = cre_obj<FreeLine>();
    wstr_copy(L"label", line->label);
    wstr_copy(L"name", line->name);
    append_point(line->points, get_obj_adr<Waypoint>(waypoint_id));
    ds_add(set_, ObjectType::FreeLine, line->id);
    Track* track = new_track(nested_set());
    wstr_copy(L"track", track->name);
    Waypoint* course = new_point(ObjectType::CoursePoint, set_);
    wstr_copy(L"course", course->name);
    rebuild_label(*course);
}

// ---- symbol images ----

// A 2 by 3 RGBA PNG file.
const unsigned char small_png[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d, 0x49, 0x48, 0x44,
    0x52, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x03, 0x08, 0x06, 0x00, 0x00, 0x00, 0xb9,
    0xea, 0xde, 0x81, 0x00, 0x00, 0x00, 0x0e, 0x49, 0x44, 0x41, 0x54, 0x78, 0x9c, 0x63, 0xf8,
    0x0f, 0x05, 0x0c, 0x18, 0x0c, 0x00, 0x42, 0xe6, 0x17, 0xe9, 0x3b, 0xe2, 0x57, 0xe4, 0x00,
    0x00, 0x00, 0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};
const std::string small_png_file(reinterpret_cast<const char*>(small_png), sizeof small_png);

std::string symbol_file(const testing::TestHome& directory, int symbol) {
    return directory.file("wpt" + std::to_string(symbol) + ".png");
}

TEST_F(GpsModel, SymbolImagesAreLoadedWholeAndCopiedOncePerSymbol) {
    testing::TestHome directory;
    const std::string broken_chunk =
        small_png_file.substr(0, 33) + std::string("\0\0\x10\0IDAT", 8);
    struct File {
        int symbol;
        std::string content;
        bool loads;
    };
    const File files[] = {
        {0, small_png_file, true},
        {1, small_png_file, true},
        {2, small_png_file.substr(0, small_png_file.size() - 12), false}, // no end chunk
        {3, "GIF89a", false},
        {4, broken_chunk, false}, // a chunk longer than the file
        {35, small_png_file, true},
    };
    for (const File& file : files)
        testing::write_file(symbol_file(directory, file.symbol), file.content);
    load_symbol_images(directory.path().c_str());
    EXPECT_FALSE(error_pending()) << "a missing or broken image only leaves its symbol bare";
    for (const File& file : files) {
        SCOPED_TRACE(file.symbol);
        EXPECT_EQ(symbol_image_of(file.symbol) != 0, file.loads);
    }
    EXPECT_EQ(symbol_image_of(5), 0) << "missing file";
    EXPECT_EQ(symbol_image_of(36), 0);
    const auto* original = get_obj_adr<ImageObj>(symbol_image_of(1));
    ASSERT_NE(original, nullptr);
    EXPECT_EQ(original->height, 3);

    const int symbols[] = {1, 1, 0, 2, 99, -1};
    std::vector<Waypoint*> points;
    for (int symbol : symbols)
        points.push_back(new_waypoint(0.0, 0.0, L"P", nullptr, symbol, 0, 0.0, nested_set()));
    points[2]->symbol_image = 12345; // already has one: left alone
    attach_symbols(set_, ObjectType::Waypoint);
    EXPECT_FALSE(error_pending());
    EXPECT_EQ(points[0]->symbol_image, points[1]->symbol_image) << "one copy per symbol";
    EXPECT_NE(points[0]->symbol_image, symbol_image_of(1)) << "a copy, not the original";
    EXPECT_EQ(points[2]->symbol_image, 12345);
    for (std::size_t i = 3; i < points.size(); ++i)
        EXPECT_EQ(points[i]->symbol_image, 0) << "symbol " << symbols[i] << " has no image";
    EXPECT_EQ(ds_count(set_, ObjectType::ImageObj), 1) << "copies belong to the reader's set";
    const auto* copy = get_obj_adr<ImageObj>(points[0]->symbol_image);
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy->encoded, original->encoded);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(copy->encoded),
                          static_cast<std::size_t>(copy->encoded_size)),
              small_png_file);

    // The set goes, and with it the copies, while the originals stay.
    ds_delete_tree(set_);
    ASSERT_EQ(get_obj_adr<ImageObj>(symbol_image_of(1)), original);
    EXPECT_EQ(original->encoded[1], 'P');

    const ObjectId before = symbol_image_of(0);
    testing::TestHome empty;
    load_symbol_images(empty.path().c_str());
    EXPECT_FALSE(exist_obj(ObjectType::ImageObj, before)) << "a new load replaces the old";
    EXPECT_EQ(symbol_image_of(0), 0);
}

TEST(GpsModelStartUp, AFailedSymbolIsLoggedInTheLanguageInUseFromThirtyFiveDown) {
    testing::in_fresh_process([] {
        testing::TestHome home;
        home.make_current();
        testing::write_file(home.file("norvanta.cfg"), "LANG FRANCAIS\nLOGERROR\n");
        config_use_file(home.file("norvanta.cfg").c_str());
        log_set_path("QLMX");
        testing::TestHome icons;
        for (int symbol = 1; symbol < symbol_image_count - 1; ++symbol)
            testing::write_file(symbol_file(icons, symbol), small_png_file);
        object_store_create();
        gps_model_register_types();
        load_symbol_images(icons.path().c_str());
        EXPECT_FALSE(error_pending());

        const std::string log = testing::read_file(home.file("logs/zz_QLMX.log"));
        const std::string stamp_end = std::string(30, '-') + "\n";
        const std::string first =
            stamp_end + "Impossible de charger l'image " + icons.path() + "wpt35.png\n";
        const std::string last =
            stamp_end + "Impossible de charger l'image " + icons.path() + "wpt0.png\n";
        EXPECT_EQ(log.size() - log.find(last), last.size()) << log;
        EXPECT_NE(log.find(first), std::string::npos) << log;
        EXPECT_LT(log.find(first), log.find(last));
        EXPECT_EQ(log.find("wpt1.png"), std::string::npos);
    });
}

} // namespace
} // namespace norvanta
