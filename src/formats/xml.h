// The markup reader that every XML-like format shares (GPX, KML, the Garmin
// training files, GeoNames answers, the HTML pages the web loader walks).
//
// It is not an XML library: one fixed byte machine reads the file, never
// validates, never reports a syntax fault, keeps no tree and knows no
// namespaces. A format gives it three name sets (elements, attributes,
// entities) and two arrays of handlers indexed by the names' values; all the
// format knows lives in those handlers. Element value 0 is a name the format
// does not list: the run gives each such name a value of its own, at or above
// the format's table size, so that handlers can step over unknown wrappers.
//
// Name sets are OrderedSets of XmlName records keyed on the name. The format
// tables behind them are static arrays of XmlName rows, registered once at
// start-up; the same three helpers serve every table of named integers in the
// program, XML or not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "core/mobj.h"

namespace norvanta {

// ---- named integers ----

struct XmlName {
    static constexpr ObjectType object_type = ObjectType::XmlName;

    ObjectId id;      // object header; 0 in a table row until it is registered
    ObjectType type;  // object header: ObjectType::XmlName
    const char* name; // nul-terminated; static in a table row, owned in a run's own entries
    int32_t value;    // what the name stands for
};
static_assert(std::is_trivially_copyable_v<XmlName> && std::is_standard_layout_v<XmlName>);

// A table row as formats write them: header zero, then name and value.
constexpr XmlName xml_name(const char* name, int32_t value) {
    return XmlName{0, ObjectType::XmlName, name, value};
}

// Enters each row into the store and writes the id it got back into the row,
// so the rows must stay where they are for the life of the process. The store
// holds a record per row whose name points at the row's string. A row that is
// already registered is left as it is.
void name_table_register(int32_t count, XmlName* table);
// A new set of the rows' names, entered from the last row to the first. Rows
// that were never registered are not in it.
void name_table_set(int32_t count, const XmlName* table, ObjectId& out_set);
// Both, as every reader needs its tables: registered, then made a set.
void name_table_install(int32_t count, XmlName* table, ObjectId& out_set);
// The value of the exact name (case counts), otherwise default_value; also
// default_value while gblerr is set.
int32_t name_lookup(ObjectId set, const char* text, int32_t default_value);

// ---- the reader ----

// Open elements kept on the stack; tags nested deeper are dropped.
inline constexpr int32_t xml_stack_capacity = 41;
// Bytes kept of an entity reference, a section keyword or a pending "]".
inline constexpr int32_t xml_side_capacity = 16;
// The text buffer grows by this much whenever its length reaches its capacity.
inline constexpr int32_t xml_text_growth_bytes = 1000;
// Window of the stream under a run.
inline constexpr int32_t xml_stream_buffer_bytes = 0x20000;

// What the XML declaration says the 8-bit text is, for xml_text_to_wide.
inline constexpr int32_t xml_encoding_utf8 = 0;
inline constexpr int32_t xml_encoding_utf16 = 1;
inline constexpr int32_t xml_encoding_other = 2;

struct XmlContext;

// text is null at the open tag and at the close tag (closing is 1 at the
// latter); otherwise it is the element's text gathered so far, writable and
// valid only during the call.
using XmlElementHandler = void (*)(XmlContext& context, char* text);
// element_value is the value on top of the stack; text is null when only the
// attribute's name has been seen, then its value.
using XmlAttributeHandler = void (*)(XmlContext& context, int32_t element_value, char* text);

// The state of one run over one file. The handlers may read all of it; they
// own current_object, current_type and format_data.
struct XmlContext {
    ObjectId owner;                                // DataSet being filled
    ObjectId element_set;                          // owned copy of the format's set; grows in a run
    ObjectId attribute_set;                        // the format's, never changed
    ObjectId entity_set;                           // the format's, or the predefined entities
    int32_t fold_case;                             // 1: names go to lower case before look-up
    int32_t handler_count;                         // slots of element_handlers; grows in a run
    XmlElementHandler* element_handlers;           // owned; slot 0 handles unknown names
    const XmlAttributeHandler* attribute_handlers; // the format's, indexed by attribute value
    ObjectId* created_entries;                     // owned; XmlNames made for unknown names
    int32_t created_count;                         // entries in created_entries
    int32_t bytes_left;                            // of the file; counted down by each byte fed
    void* current_object;                          // the handlers': the object now being filled
    ObjectType current_type;                       // its ObjectType
    void* format_data;                             // the format's block; freed with the context
    int32_t encoding;                              // xml_encoding_utf8, _utf16 or _other
    int32_t state;                                 // row of the byte machine
    int32_t depth;                                 // open elements on the stack
    int32_t stack[xml_stack_capacity];             // element values, outermost first
    int32_t attribute_id;                          // value of the attribute being read
    int32_t closing;                               // 1 only while a close handler runs
    int32_t text_capacity;                         // bytes of text
    char* text;                                    // owned; the text being gathered
    int32_t text_cursor;                           // where the next byte goes
    int32_t text_length;                           // bytes appended since the text was emptied
    int32_t section_mark;                          // text_cursor + 1 where a discarded section
                                                   // began; 0 when none
    char small[xml_side_capacity + 1];             // side buffer, nul-terminated when read
    int32_t small_length;                          // bytes in the side buffer
};

// Makes the context of one run. element_set is copied, so that the names a
// run adds never reach the format's set; entity_set 0 takes the predefined
// entities. handlers holds handler_count slots indexed by element value; its
// slot 0 is not read. attribute_handlers needs a slot for every value in
// attribute_set. A null slot, or a null attribute array, acts as a no-op.
// Nothing is made while gblerr is set.
void xml_context_create(ObjectId owner, ObjectId element_set, ObjectId attribute_set,
                        ObjectId entity_set, bool fold_case, int32_t handler_count,
                        const XmlElementHandler* element_handlers,
                        const XmlAttributeHandler* attribute_handlers, XmlContext*& out_context);
// Runs the machine over the whole file. A file that cannot be opened sets
// file_access; a handler that sets gblerr stops the run after its byte.
void xml_read_file(ObjectId file_id, XmlContext& context);
// Runs the machine over bytes in memory, one after the other, as the file
// reader does; a run may be fed in any number of pieces. Returns the bytes
// taken, which is fewer than count only when a byte's action set gblerr.
std::size_t xml_feed(XmlContext& context, const char* bytes, std::size_t count);
// Frees the context and what it owns, and zeroes the variable. The names the
// run added die with it.
void xml_context_free(XmlContext*& context);

// The handler of the names a format accepts and ignores.
void xml_no_op(XmlContext& context, char* text);

// A text of the file as a wide string, read as the XML declaration says:
// UTF-8; UTF-16, the bytes taken in little-endian pairs; any other name, one
// character per byte.
wchar_t* xml_text_to_wide(const XmlContext& context, const char* text, wchar_t*& out);

// The attribute handler of "encoding" for a format whose element 1 is "xml":
// "utf-8" gives xml_encoding_utf8, "utf-16" xml_encoding_utf16, any other text
// xml_encoding_other. Exact and case-sensitive.
void xml_encoding_attribute(XmlContext& context, int32_t element_value, char* text);

// ---- a reader's entry ----

// What a markup format hands the common entry.
struct XmlFormat {
    ObjectId element_set = 0;                                // the format's shared set
    ObjectId attribute_set = 0;                              // the format's shared set
    ObjectId entity_set = 0;                                 // 0: the predefined entities
    bool fold_case = false;                                  // names to lower case before look-up
    int32_t handler_count = 0;                               // slots of element_handlers
    const XmlElementHandler* element_handlers = nullptr;     // indexed by element value
    const XmlAttributeHandler* attribute_handlers = nullptr; // indexed by attribute value
    std::size_t format_data_bytes = 0;           // zeroed block for the handlers; 0 for none
    void (*finish)(ObjectId data_set) = nullptr; // the finishing passes; null for none
};

// The entry of every markup reader whose format data is one plain block:
// look the DataSet up, make the context, give the DataSet the default
// GeoReference (every data file is WGS 84 unless its handlers say otherwise),
// read, free the context, and run the finishing passes only when gblerr is
// clear. What a failed run built stays in the DataSet.
void xml_read_data_set(ObjectId file_id, ObjectId data_set, const XmlFormat& format);

// Start-up: registers XmlName and builds the set of the predefined entities.
// A second call does nothing.
void xml_init();
// The set of amp, quot, lt, gt and apos.
ObjectId xml_predefined_entities();

} // namespace norvanta
