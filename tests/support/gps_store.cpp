// Shared set-up of the GPS record tests.
#include "support/gps_store.h"

#include <gtest/gtest.h>

#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/paged_memory.h"
#include "formats/file_mobj.h"
#include "formats/gps_model.h"
#include "geodesy/tables.h"
#include "geodesy/transforms.h"
#include "navigation/nmea_writer.h"
#include "shell/errors.h"

namespace norvanta::testing {

void set_up_gps_store(const char* system_directory) {
    static const bool done = [system_directory] {
        object_store_create();
        paged_memory_register();
        gps_model_register_types();
        nav_point_register_type();
        geodesy_register_types();
        transforms_register_types();
        file_objects_init();
        geodesy_load_from(system_directory);
        geodesy_find_wgs84();
        return !error_pending();
    }();
    EXPECT_TRUE(done) << "the system tables load";
    set_gblerr(ErrorCode::none);
}

JulianTime utc(int year, int month, int day, int hour, int minute, double second) {
    JulianTime time{};
    date_normalise(time, year, month, day_compose(day - 1, hour, minute, second));
    return time;
}

std::string with_tails(std::initializer_list<std::string> bodies) {
    std::string text;
    char tail[checksum_tail_capacity];
    for (const std::string& body : bodies) {
        format_checksum_tail(body.c_str(), tail);
        text += body + tail;
    }
    return text;
}

NavSample* new_sample(ObjectId data_set, const SampleValues& values) {
    ObjectId id = 0;
    auto* sample = cre_obj<NavSample>(&id);
    if (!sample) return nullptr;
    ds_add(data_set, ObjectType::NavSample, id);
    sample->longitude = values.longitude;
    sample->latitude = values.latitude;
    sample->altitude = values.altitude;
    sample->time = values.time;
    sample->ellipsoid_height = values.ellipsoid_height;
    sample->speed = values.speed;
    sample->course = values.course;
    sample->hdop = values.hdop;
    sample->satellites = values.satellites;
    sample->fix_acquired = values.fix_acquired;
    sample->differential = values.differential;
    return sample;
}

ObjectId disk_file(const std::string& path) {
    const ObjectId file = new_file_mobj(no_parent, nullptr, path.c_str(), false);
    if (file_class_of(file) != FileClass::regular_file) return 0;
    return file;
}

void drop_file(ObjectId& file) {
    del_obj_adr(ObjectType::FileMobj, file);
}

} // namespace norvanta::testing
