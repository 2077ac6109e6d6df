// The text log of live navigation: every byte a serial receiver sends, as
// it came, after a header sentence, in NAVIG_LOG_DIR.
#pragma once

namespace norvanta {

struct ReceiverLink;

// Opens NMEA_<local time stamp>.nmea for the link's parser when it has none,
// writes the header and raises nmea_log_on. A file that cannot be opened
// leaves the flag down (the opener has said why), and the next attempt
// comes with the next batch.
void open_nmea_log(ReceiverLink& link);

} // namespace norvanta
