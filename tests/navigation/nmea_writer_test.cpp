// The checksum, the sentence tail and the marks.
#include "navigation/nmea_writer.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace norvanta {
namespace {

TEST(NmeaWriter, TailsMatchKnownSentences) {
    const struct {
        const char* sentence;
        const char* tail;
    } cases[] = {
        {"$GPGGA,123519,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,", "*47\r\n"},
        {"$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W", "*6A\r\n"},
        {"$PGRMV,0.0,0.0,0.0", "*5C\r\n"},
        {"$GPBOD,,T,,M,,", "*47\r\n"},
        {"$", "*00\r\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sentence);
        char tail[checksum_tail_capacity];
        std::memset(tail, 'x', sizeof tail);
        format_checksum_tail(c.sentence, tail);
        EXPECT_STREQ(tail, c.tail);
    }
}

TEST(NmeaWriter, ChecksumOfTextAfterTheDollar) {
    EXPECT_EQ(nmea_checksum(""), 0);
    EXPECT_EQ(nmea_checksum(nullptr), 0);
    EXPECT_EQ(nmea_checksum("PGRMV,0.0,0.0,0.0"), 0x5C);
    EXPECT_EQ(nmea_checksum("\xFF\x0F"), 0xF0) << "bytes above 127 count as unsigned";
}

TEST(NmeaWriter, MarksAreTheirSentencesWithTheirTails) {
    EXPECT_STREQ(start_mark_sentence(), "$PKLNT,START*21\r\n");
    EXPECT_STREQ(stop_mark_sentence(), "$PKLNT,STOP*79\r\n");
}

} // namespace
} // namespace norvanta
