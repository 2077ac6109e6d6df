// The object types of the store, by number: one list, from which the enum and
// the name table both come.
#pragma once

#include <cstdint>

namespace norvanta {

#define NORVANTA_OBJECT_TYPES(X)                                                                   \
    X(ImageObj, 1)                                                                                 \
    X(DrawIcon, 2)                                                                                 \
    X(DrawLine, 3)                                                                                 \
    X(DrawSymbol, 4)                                                                               \
    X(DrawText, 5)                                                                                 \
    X(DrawPolyline, 6)                                                                             \
    X(DrawPath, 7)                                                                                 \
    X(DrawRect, 8)                                                                                 \
    X(DrawArc, 9)                                                                                  \
    X(MonthName, 16)                                                                               \
    X(FileView, 19)                                                                                \
    X(WindowRecord, 20)                                                                            \
    X(DisplayPage, 21)                                                                             \
    X(DisplayFrame, 22)                                                                            \
    X(DisplayLayer, 23)                                                                            \
    X(DisplayItem, 24)                                                                             \
    X(Mobj, 25)                                                                                    \
    X(DisplayState, 26)                                                                            \
    X(FileMobj, 27)                                                                                \
    X(ImageCacheEntry, 28)                                                                         \
    X(GifFrame, 29)                                                                                \
    X(ObjectExtent, 33)                                                                            \
    X(Unnamed34, 34)                                                                               \
    X(Ellipsoid, 35)                                                                               \
    X(DatumShift, 36)                                                                              \
    X(Datum, 37)                                                                                   \
    X(ProjectedSystem, 38)                                                                         \
    X(PrimeMeridian, 39)                                                                           \
    X(NameAlias, 40)                                                                               \
    X(GeoTiePoint, 41)                                                                             \
    X(GeoPixelScale, 42)                                                                           \
    X(GeoTransform, 43)                                                                            \
    X(CoordBuffer, 45)                                                                             \
    X(GeoReference, 46)                                                                            \
    X(GeodesyCompanion47, 47)                                                                      \
    X(XmlName, 48)                                                                                 \
    X(ExifBlock, 49)                                                                               \
    X(Printer, 50)                                                                                 \
    X(PrinterJob, 51)                                                                              \
    X(PositionList, 52)                                                                            \
    X(DrawScale, 53)                                                                               \
    X(GeodesyEntry54, 54)                                                                          \
    X(GeodesyEntry55, 55)                                                                          \
    X(GeodesyEntry56, 56)                                                                          \
    X(GeodesyCompanion57, 57)                                                                      \
    X(Waypoint, 100)                                                                               \
    X(TrackPoint, 101)                                                                             \
    X(Track, 102)                                                                                  \
    X(PhotoPosition, 103)                                                                          \
    X(Route, 104)                                                                                  \
    X(TrackSegment, 105)                                                                           \
    X(PointOfInterest, 106)                                                                        \
    X(LineOfInterest, 107)                                                                         \
    X(GarminProductEntry, 108)                                                                     \
    X(KmlStyle, 109)                                                                               \
    X(ReceiverLink, 111)                                                                           \
    X(NavSample, 112)                                                                              \
    X(LinePoint, 114)                                                                              \
    X(FreeLine, 115)                                                                               \
    X(CoursePoint, 116)                                                                            \
    X(TrailStartMark, 117)                                                                         \
    X(TrailEndMark, 118)                                                                           \
    X(NavPoint, 121)                                                                               \
    X(SocketRecord, 122)

// None is 0: "no type", as in a DataSet query for every member.
enum class ObjectType : int32_t {
    None = 0,
#define NORVANTA_OBJECT_TYPE_ENUM(name, number) name = number,
    NORVANTA_OBJECT_TYPES(NORVANTA_OBJECT_TYPE_ENUM)
#undef NORVANTA_OBJECT_TYPE_ENUM
};

// The store is dimensioned for types 0 to 122.
inline constexpr int32_t object_type_count = 123;

// The name of a type for logs and test messages; "?" for an unused number.
const char* object_type_name(ObjectType type);

} // namespace norvanta
