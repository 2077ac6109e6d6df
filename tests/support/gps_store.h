// What the tests of the GPS records, the sentence writer and the log readers
// share: one store with the record types and the geodetic dictionary of the
// source tree's system tables, times made from calendar fields, and sentences
// with their tails.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include "core/mobj.h"
#include "shell/julian.h"

namespace norvanta {
struct NavSample;
}

namespace norvanta::testing {

// Makes the store, registers the record types and loads the tables of
// system_directory (ending in a separator: the tests pass the source tree's
// system directory), once per test program; then clears gblerr.
void set_up_gps_store(const char* system_directory);

// The JulianTime of a UTC date and clock time, as the readers make it.
JulianTime utc(int year, int month, int day, int hour, int minute, double second);

// Each body ("$GPGGA,...") with its checksum tail, one after the other.
std::string with_tails(std::initializer_list<std::string> bodies);

// The values of a NavSample, each 0 unless named.
struct SampleValues {
    double longitude = 0.0, latitude = 0.0, altitude = 0.0;
    JulianTime time{};
    double ellipsoid_height = 0.0, speed = 0.0, course = 0.0, hdop = 0.0;
    int32_t satellites = 0;
    uint32_t fix_acquired = 0, differential = 0;
};
// A NavSample of those values, a member of data_set.
NavSample* new_sample(ObjectId data_set, const SampleValues& values);

// A FileMobj of a regular file on disk, examined; 0 when it is none.
ObjectId disk_file(const std::string& path);
// Deletes it, which closes its stream.
void drop_file(ObjectId& file);

} // namespace norvanta::testing
