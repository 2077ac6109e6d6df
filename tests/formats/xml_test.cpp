// Tests of the markup reader: each row is a small document and the calls its
// handlers see, read from a file and again fed in pieces at every split
// point; then the stops (a handler's error, a file that cannot be opened), the
// names a run adds, the tables of named integers and the wide conversions.
#include "formats/xml.h"

#include <array>
#include <cwchar>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/stream.h"
#include "core/strings.h"
#include "formats/file_mobj.h"
#include "geodesy/tables.h"
#include "shell/errors.h"
#include "support/test_home.h"

namespace norvanta {
namespace {

[[maybe_unused]] const auto* const home = testing::use_private_home_for_this_process();

// ---- a format that writes down every call ----

constexpr int32_t element_table_size = 5; // value 0 and four names
constexpr std::array<const char*, element_table_size> element_names = {"?", "xml", "a", "b", "c"};
XmlName element_rows[] = {xml_name("xml", 1), xml_name("a", 2), xml_name("b", 3), xml_name("c", 4)};
constexpr std::array<const char*, 4> attribute_names = {"?", "encoding", "x", "y"};
XmlName attribute_rows[] = {xml_name("encoding", 1), xml_name("x", 2), xml_name("y", 3)};

ObjectId element_set = 0;
ObjectId attribute_set = 0;
std::vector<std::string> events;
bool fail_at_c = false; // the handler of c sets invalid_file at its open tag

// Unknown elements are "*", whatever value the run gave them.
std::string label_of(int32_t value) {
    return value < element_table_size ? element_names[static_cast<std::size_t>(value)] : "*";
}

template <int32_t Value>
void record_element(XmlContext& context, char* text) {
    const std::string label = element_names[Value];
    if (text) {
        events.push_back(label + ":" + text);
        return;
    }
    events.push_back((context.closing ? "/" : "<") + label);
    if (Value == 4 && fail_at_c && !context.closing) set_gblerr(ErrorCode::invalid_file);
}

template <int32_t Value>
void record_attribute(XmlContext& context, int32_t element_value, char* text) {
    std::string event = label_of(element_value) + "@" + attribute_names[Value];
    if (text) event += std::string("=") + text;
    events.push_back(event);
    if (Value == 1) xml_encoding_attribute(context, element_value, text);
}

constexpr std::array<XmlElementHandler, element_table_size> element_handlers = {
    nullptr, record_element<1>, record_element<2>, record_element<3>, record_element<4>};
constexpr std::array<XmlAttributeHandler, 4> attribute_handlers = {
    record_attribute<0>, record_attribute<1>, record_attribute<2>, record_attribute<3>};

void set_up_once() {
    static const bool done = [] {
        object_store_create();
        set_obj_type<FileMobj>();
        geodesy_register_types();
        geodesy_load_from(NORVANTA_TEST_DATA_DIR "/geodesy/basic/");
        geodesy_find_wgs84();
        xml_init();
        name_table_install(std::ssize(element_rows), element_rows, element_set);
        name_table_install(std::ssize(attribute_rows), attribute_rows, attribute_set);
        return true;
    }();
    (void)done;
}

struct Options {
    bool fold_case = false;
    ObjectId entity_set = 0;
};

XmlContext* new_context(const Options& options = {}) {
    XmlContext* context = nullptr;
    xml_context_create(0, element_set, attribute_set, options.entity_set, options.fold_case,
                       element_table_size, element_handlers.data(), attribute_handlers.data(),
                       context);
    return context;
}

// What a run left behind.
struct Outcome {
    std::string events; // joined by '|'
    int32_t depth;
};

Outcome finish(XmlContext*& context) {
    std::string joined;
    for (const std::string& event : events)
        joined += (joined.empty() ? "" : "|") + event;
    events.clear();
    Outcome outcome{joined, context ? context->depth : -1};
    xml_context_free(context);
    return outcome;
}

std::string repeat(const std::string& piece, int count) {
    std::string result;
    for (int i = 0; i < count; ++i)
        result += piece;
    return result;
}

struct Row {
    const char* what;
    std::string document;
    std::string expected;
    int32_t depth; // open elements at the end
    Options options = {};
};

// A format's own entities, one with a name of fifteen bytes: all that the
// side buffer keeps of a reference after its '&'.
ObjectId long_entity_set() {
    static XmlName entity_rows[] = {xml_name("abcdefghijklmno", 'Z')};
    static const ObjectId set = [] {
        ObjectId made = 0;
        name_table_install(1, entity_rows, made);
        return made;
    }();
    return set;
}

std::vector<Row> rows() {
    const std::string deep = repeat("<a>", xml_stack_capacity);
    const std::string deep_events = repeat("<a|", xml_stack_capacity);
    const std::string long_text = repeat("x", 998);
    const std::string brackets = repeat("]]y", 1100); // past one read chunk
    return {
        {"numeric and named entities; an unknown one adds nothing", "<a>&#65;&#x42;&bogus;&lt;</a>",
         "<a|a:AB<|/a", 0},
        {"a character above 255 keeps its low byte only", "<a>&#1234;</a>", "<a|a:\xD2|/a", 0},
        {"&#0; adds nothing; &#256; adds a NUL that ends the text", "<a>x&#0;y&#256;z</a>",
         "<a|a:xy|/a", 0},
        {"a reference broken by a blank throws the text before it away", "<a>x &y z</a>",
         "<a|a:z|/a", 0},
        {"an empty-element tag: the open call only", "<a/>", "<a", 0},
        {"text around a child reaches the parent in pieces", "<a>one<b>two</b>three</a>",
         "<a|a:one|<b|b:two|/b|a:three|/a", 0},
        {"closing an outer element pops the inner one without a call", "<a><b><c></b>x</a>",
         "<a|<b|<c|/b|a:x|/a", 0},
        {"white space: leading dropped, a run keeps its first byte", "<a> \n x\t \n y\x01z  </a>",
         "<a|a:x\tyz |/a", 0},
        {"a '>' at the start of text is dropped, inside it is kept", "<a>>x>y</a>", "<a|a:x>y|/a",
         0},
        {"a comment leaves the text around it", "<a>x<!-- <b>&amp; -- --->y</a>", "<a|a:xy|/a", 0},
        {"\"<!->\" throws the text away", "<a>x<!->y</a>", "<a|a:y|/a", 0},
        {"<> is ignored", "<a>x<>y</a>", "<a|a:xy|/a", 0},
        {"a broken tag is skipped to its '>' with the text before it", "<a>hello<$>world</a>",
         "<a|a:world|/a", 0},
        {"CDATA keeps mark-up and references as text", "<a><![CDATA[<b>&amp;]]></a>",
         "<a|a:<b>&amp;|/a", 0},
        {"\"]]]>\" does not end a section; \"]] >\" does", "<a><![CDATA[x]]]>y]] >z</a>",
         "<a|a:x]]]>yz|/a", 0},
        {"any other section is dropped", "<a>x<![IGNORE[y]]>z</a>", "<a|a:xz|/a", 0},
        {"a dropped section at the start still flushes, empty", "<a><![IGNORE[y]]></a>", "<a|a:|/a",
         0},
        {"text and sections longer than the buffer's steps and a read chunk",
         "<a>" + long_text + "<![CDATA[" + brackets + "]]></a>",
         "<a|a:" + long_text + brackets + "|/a", 0},
        {"known elements inside an unknown wrapper", "<a><u><b>t</b></u></a>", "<a|<b|b:t|/b|/a",
         0},
        {"input cut in a value: unclosed elements get no close call", "<a><b>t<c x=\"1",
         "<a|<b|b:t|<c|c@x", 3},
        {"a byte-order mark is text at depth 0, dropped", "\xEF\xBB\xBF<a>t</a>", "<a|a:t|/a", 0},
        {"double and single quotes", "<a x=\"1\" y='2'/>", "<a|a@x|a@x=1|a@y|a@y=2", 0},
        {"a value: leading blanks dropped, runs cut, references read",
         "<a x=\"  p  q&lt;&#x41;\"/>", "<a|a@x|a@x=p q<A", 0},
        {"an attribute without a value reaches its handler by name only", "<a x y=\"2\">",
         "<a|a@x|a@y|a@y=2", 1},
        {"a quote inside a reference in a value announces an attribute", "<a x=\"p&q\"/>",
         "<a|a@x|a@?", 0},
        {"CDATA in a single-quoted value ends it at a double quote", "<a x='p<![CDATA[q]]>r\"s'/>",
         "<a|a@x|a@x=pqr", 1},
        {"namespace prefixes are dropped in tags and attributes", "<g:a xsi:x=\"1\"></g:a>",
         "<a|a@x|a@x=1|/a", 0},
        {"the declaration is an element popped at \"?>\"",
         "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a>\xE9</a>",
         "<xml|xml@?|xml@?=1.0|xml@encoding|xml@encoding=ISO-8859-1|<a|a:\xE9|/a", 0},
        {"DOCTYPE stays open at the bottom, its word an attribute", "<!DOCTYPE a><a>t</a>",
         "*@?|<a|a:t|/a", 1},
        {"a format's entities replace the predefined; a long reference is cut",
         "<a>&lt;&abcdefghijklmnoXYZ;</a>",
         "<a|a:Z|/a",
         0,
         {.entity_set = long_entity_set()}},
        {"names are folded when asked",
         "<A X=\"1\">t</A>",
         "<a|a@x|a@x=1|a:t|/a",
         0,
         {.fold_case = true}},
        {"the open tag past the limit is dropped; its close finds nothing", deep + "<b>x</b>y",
         deep_events + "a:x", xml_stack_capacity},
        {"or closes an outer element of the same name", deep + "<a>x</a>", deep_events + "a:x|/a",
         xml_stack_capacity - 1},
        {"an empty-element tag past the limit pops its parent",
         repeat("<a>", xml_stack_capacity - 1) + "<b><c/></b>",
         repeat("<a|", xml_stack_capacity - 1) + "<b", xml_stack_capacity - 1},
    };
}

class Xml : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { set_up_once(); }
    void SetUp() override {
        set_gblerr(ErrorCode::none);
        events.clear();
        fail_at_c = false;
    }
    void TearDown() override {
        set_gblerr(ErrorCode::none);
        for (ObjectId id : files_) {
            close_stream(id);
            if (auto* file = find_obj_adr<FileMobj>(id)) free_mem(file->path);
            del_obj(ObjectType::FileMobj, id);
        }
    }

    ObjectId file_with(const std::string& content) {
        const std::string path = home_.file("doc" + std::to_string(files_.size()) + ".xml");
        testing::write_file(path, content);
        ObjectId id = 0;
        auto* file = cre_obj<FileMobj>(&id);
        str_copy(path.c_str(), file->path);
        file->size = static_cast<uint32_t>(content.size());
        files_.push_back(id);
        return id;
    }

    Outcome read_file(const std::string& document, const Options& options = {}) {
        XmlContext* context = new_context(options);
        xml_read_file(file_with(document), *context);
        EXPECT_EQ(context->bytes_left, 0);
        return finish(context);
    }

    testing::TestHome home_;
    std::vector<ObjectId> files_;
};

TEST_F(Xml, DocumentsGiveTheirHandlerCalls) {
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.what);
        const Outcome outcome = read_file(row.document, row.options);
        EXPECT_EQ(outcome.events, row.expected);
        EXPECT_EQ(outcome.depth, row.depth);
        EXPECT_EQ(current_error(), ErrorCode::none);
    }
}

// All progress lives in the context, so a document cut anywhere, or fed a
// byte at a time, gives the calls of one whole read.
TEST_F(Xml, FeedsInPiecesGiveTheCallsOfOneRead) {
    for (const Row& row : rows()) {
        const std::string& document = row.document;
        for (std::size_t split = 1; split < document.size(); ++split) {
            XmlContext* context = new_context(row.options);
            xml_feed(*context, document.data(), split);
            xml_feed(*context, document.data() + split, document.size() - split);
            const Outcome outcome = finish(context);
            if (outcome.events != row.expected) {
                ADD_FAILURE() << row.what << ": split at " << split << " gives " << outcome.events;
                break;
            }
        }
        XmlContext* context = new_context(row.options);
        for (char byte : document)
            xml_feed(*context, &byte, 1);
        EXPECT_EQ(finish(context).events, row.expected) << row.what << ", a byte at a time";
    }
}

TEST_F(Xml, AHandlersErrorStopsTheRunOnItsByte) {
    fail_at_c = true;
    const std::string document = "<a>t<c>u</c><b/></a>";
    XmlContext* context = new_context();
    xml_read_file(file_with(document), *context);
    EXPECT_EQ(current_error(), ErrorCode::invalid_file);
    const auto after_c = static_cast<int32_t>(document.size() - document.find("<c>") - 3);
    EXPECT_EQ(context->bytes_left, after_c) << "the '>' of <c> is the last byte read";
    EXPECT_EQ(context->state, 16) << "the state of the tag name, not taken onward";
    EXPECT_EQ(finish(context).events, "<a|a:t|<c");

    set_gblerr(ErrorCode::none);
    context = new_context();
    EXPECT_EQ(xml_feed(*context, document.data(), document.size()), document.find("<c>") + 3);
    xml_context_free(context);
}

ObjectId finished_set = 0;
void note_finish(ObjectId data_set) {
    finished_set = data_set;
}

// The finishing passes run only after a clean read; the GeoReference joins the
// DataSet before the read, so a failed run leaves it too.
TEST_F(Xml, AReadersEntryFinishesOnlyACleanRead) {
    const XmlFormat format{.element_set = element_set,
                           .attribute_set = attribute_set,
                           .handler_count = element_table_size,
                           .element_handlers = element_handlers.data(),
                           .attribute_handlers = attribute_handlers.data(),
                           .format_data_bytes = 2 * sizeof(void*),
                           .finish = note_finish};
    for (bool fail : {false, true}) {
        SCOPED_TRACE(fail ? "a handler fails" : "a clean read");
        set_gblerr(ErrorCode::none);
        fail_at_c = fail;
        finished_set = 0;
        ObjectId data_set = 0;
        ds_create(data_set);
        xml_read_data_set(file_with("<a><c/></a>"), data_set, format);
        EXPECT_EQ(current_error(), fail ? ErrorCode::invalid_file : ErrorCode::none);
        EXPECT_EQ(finished_set, fail ? 0 : data_set);
        set_gblerr(ErrorCode::none);
        ObjectId reference = 0;
        ds_next_of_type(data_set, ObjectType::GeoReference, reference, nullptr);
        const auto* geo = find_obj_adr<GeoReference>(reference);
        ASSERT_NE(geo, nullptr);
        EXPECT_EQ(geo->datum, wgs84_datum);
        ds_delete_tree(data_set);
        ds_destroy(data_set);
        events.clear();
    }
    set_gblerr(ErrorCode::none);
    xml_read_data_set(file_with("<a/>"), 999999, format);
    EXPECT_EQ(current_error(), ErrorCode::object_internal) << "a missing DataSet";
    EXPECT_EQ(finished_set, 0);
    EXPECT_TRUE(events.empty()) << "nothing was read";
}

TEST_F(Xml, AFileThatCannotBeOpenedIsNoAccess) {
    const ObjectId id = file_with("<a/>");
    str_copy(home_.file("no-such.xml").c_str(), find_obj_adr<FileMobj>(id)->path);
    XmlContext* context = new_context();
    xml_read_file(id, *context);
    EXPECT_EQ(current_error(), ErrorCode::file_access);
    EXPECT_EQ(finish(context).events, "");
}

// Each unknown name gets the next value from the table's size on, its close
// tag finds it again, and none of it outlives the run.
int32_t live_names() {
    int32_t live = 0;
    for (ObjectId id = 0; next_obj(ObjectType::XmlName, id, nullptr);)
        ++live;
    return live;
}

TEST_F(Xml, UnknownNamesLiveOnlyForTheirRun) {
    const int32_t slots_before = obj_slot_count(ObjectType::XmlName);
    const int32_t live_before = live_names();
    for (int run = 0; run < 2; ++run) {
        SCOPED_TRACE(run);
        const std::string document = "<u><v/><u><a/></u></u>";
        XmlContext* context = new_context();
        xml_feed(*context, document.data(), 5); // "<u><v"
        EXPECT_EQ(context->stack[0], element_table_size);
        xml_feed(*context, document.data() + 5, document.size() - 5);
        EXPECT_EQ(context->handler_count, element_table_size + 2) << "u and v, once each";
        EXPECT_EQ(context->depth, 0) << "both u closed";
        EXPECT_EQ(name_lookup(context->element_set, "v", 0), element_table_size + 1);
        const ObjectId made = context->created_entries[0];
        EXPECT_EQ(finish(context).events, "<a");
        EXPECT_EQ(find_obj_adr<XmlName>(made), nullptr);
        EXPECT_EQ(name_lookup(element_set, "u", 0), 0) << "the format's set is untouched";
    }
    // Deleted records stay as tombstones; two runs made two names each.
    EXPECT_EQ(obj_slot_count(ObjectType::XmlName), slots_before + 4);
    EXPECT_EQ(live_names(), live_before);
}

TEST_F(Xml, NameTablesHoldTheirRegisteredRowsExactly) {
    // Only the first two rows are registered, as a format may count fewer
    // rows than its array holds; the set is built over all three.
    XmlName rows[] = {xml_name("Summit", 27), xml_name("Bank", 24), xml_name("Zoo", 13)};
    name_table_register(2, rows);
    ObjectId set = 0;
    name_table_set(3, rows, set);
    EXPECT_EQ(oset_count(set), 2);
    struct Lookup {
        const char* text;
        int32_t expected;
    };
    for (const Lookup& lookup : {Lookup{"Summit", 27}, Lookup{"Bank", 24}, Lookup{"Zoo", -1},
                                 Lookup{"bank", -1}, Lookup{"Ban", -1}, Lookup{"", -1}}) {
        EXPECT_EQ(name_lookup(set, lookup.text, -1), lookup.expected) << lookup.text;
    }
    const ObjectId first_id = rows[0].id;
    name_table_register(2, rows);
    EXPECT_EQ(rows[0].id, first_id) << "a second registration keeps the rows";
    oset_delete(set);
}

// The declaration's encoding, read through its attribute handler, decides how
// a text becomes wide.
TEST_F(Xml, TextBecomesWideAsTheDeclarationSays) {
    struct Case {
        const char* encoding;
        const char* text;
        const wchar_t* expected;
    };
    const Case cases[] = {
        {"utf-8", "\xC3\xA9t\xC3\xA9", L"\u00e9t\u00e9"},
        {"ISO-8859-1", "\xE9t\xE9", L"\u00e9t\u00e9"},
        {"UTF-8", "\xC3\xA9", L"\u00c3\u00a9"}, // the compare is case-sensitive
        {"utf-16", "AB", L"\u4241"},
        {"utf-16", "ABC", L"\u4241C"},
        {"utf-16", "\x3D\xD8\x01\xDE", L"\U0001F601"}, // a surrogate pair
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.encoding) + " " + c.text);
        const std::string declaration = std::string("<?xml encoding=\"") + c.encoding + "\"?>";
        XmlContext* context = new_context();
        xml_feed(*context, declaration.data(), declaration.size());
        wchar_t* wide = nullptr;
        xml_text_to_wide(*context, c.text, wide);
        EXPECT_STREQ(wide, c.expected);
        free_mem(wide);
        finish(context);
    }
    XmlContext* context = new_context();
    char other[] = "utf-16";
    xml_encoding_attribute(*context, 2, other);
    EXPECT_EQ(context->encoding, xml_encoding_utf8) << "only element 1 declares";
    xml_context_free(context);
}

} // namespace
} // namespace norvanta
