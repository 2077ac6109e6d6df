// Format detection: what a source is, from its content and only at last from
// its extension.
//
// Detection fills in the file_class, format and lazy_load of a FileMobj, which
// the load dispatcher switches on. It looks at regular files, web addresses
// and ecwp addresses only. For a regular file it reads the first 64 bytes for
// magic numbers and signatures, then, when none matched, the first 4000 bytes
// for text signatures, and the root element of an XML document; the extension
// decides only for two formats without a signature. Unknown content is not an
// error: it is the class unusable, and gblerr is clear afterwards.
//
// Containers and web pages are opened by their own modules, which register
// their entry points here at start-up; without them a Zip or GZip file stays
// a recognised but unopened container, and a web address is unusable.
#pragma once

#include <cstdint>

#include "core/mobj.h"
#include "formats/file_mobj.h"

namespace norvanta {

// The archive module's entry points. A limit is the most bytes to expand, so
// that the start of a member can be recognised cheaply; 0 expands all.
struct ArchiveHooks {
    void (*zip_member_open)(ObjectId member, int32_t limit_bytes);
    void (*zip_list)(ObjectId archive, ObjectId data_set);
    void (*gzip_open)(ObjectId file, int32_t limit_bytes);
};
// The web loader's entry points. load_url fetches the address into the file's
// memory (running detection on what arrives) and returns the file that now
// holds the data, the same or a new one, or 0 on failure.
struct WebHooks {
    ObjectId (*load_url)(ObjectId file, ObjectId data_set);
    void (*gather_links)(ObjectId page, ObjectId data_set);
};
// The hooks must outlive the program's use of them (static tables); null
// removes them.
void set_archive_hooks(const ArchiveHooks* hooks);
void set_web_hooks(const WebHooks* hooks);

// Decides class and format of a file of class regular_file, http_url or
// ecwp_url; any other file is left as it is. With a data set, the members of
// a file list, a Zip archive or a web page are added to it. nested is set for
// a detection that runs on data already expanded (it expands in full).
// Returns the file that holds the data: the same, or the one a web address
// was redirected to. gblerr is clear afterwards.
ObjectId detect_format(ObjectId file, ObjectId data_set, bool nested);

// The name the information text prints for a format: "" for raster formats
// (the image module names them), for the numbers that print a blank, and for
// numbers outside the table.
const char* format_name(FileFormat format);

} // namespace norvanta
