// The markup reader over any bytes: no read or write outside its buffers, the
// stack and text invariants hold after every feed, and a document fed in two
// pieces gives the handler calls of one whole feed. The first byte chooses
// the split and whether names are folded.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "core/object_store.h"
#include "formats/xml.h"
#include "shell/errors.h"

namespace {

using namespace norvanta;

constexpr int32_t element_table_size = 6;
XmlName element_rows[] = {xml_name("xml", 1), xml_name("gpx", 2), xml_name("wpt", 3),
                          xml_name("name", 4), xml_name("ele", 5)};
XmlName attribute_rows[] = {xml_name("encoding", 1), xml_name("lat", 2), xml_name("lon", 3)};
ObjectId element_set = 0;
ObjectId attribute_set = 0;

// Every call folded into one number, so that two runs can be compared.
uint64_t calls_hash = 0;

void mix(uint64_t value) {
    calls_hash = (calls_hash ^ value) * 0x100000001B3ull;
}
void mix_text(const char* text) {
    if (!text) return mix(0xFFFF);
    for (const char* c = text; *c; ++c)
        mix(static_cast<unsigned char>(*c));
    mix(0x100);
}

void element(XmlContext& context, char* text) {
    mix(static_cast<uint64_t>(context.stack[context.depth > 0 ? context.depth - 1 : 0]));
    mix(static_cast<uint64_t>(context.closing));
    mix_text(text);
}

void attribute(XmlContext& context, int32_t element_value, char* text) {
    mix(static_cast<uint64_t>(element_value) << 8 | static_cast<uint64_t>(context.attribute_id));
    mix_text(text);
    xml_encoding_attribute(context, element_value, text);
}

constexpr XmlElementHandler element_handlers[element_table_size] = {nullptr, element, element,
                                                                    element, element, element};
constexpr XmlAttributeHandler attribute_handlers[] = {attribute, attribute, attribute, attribute};

void set_up_once() {
    static const bool done = [] {
        object_store_create();
        xml_init();
        name_table_install(std::ssize(element_rows), element_rows, element_set);
        name_table_install(std::ssize(attribute_rows), attribute_rows, attribute_set);
        return true;
    }();
    (void)done;
}

bool sound(const XmlContext& context) {
    return context.depth >= 0 && context.depth <= xml_stack_capacity &&
           context.text_cursor <= context.text_length &&
           (context.text_capacity == 0 || context.text_length < context.text_capacity) &&
           context.small_length <= xml_side_capacity;
}

struct Run {
    uint64_t hash;
    int32_t state;
    int32_t depth;
    int32_t encoding;
};

Run run(const char* bytes, std::size_t count, std::size_t split, bool fold_case) {
    calls_hash = 0xCBF29CE484222325ull;
    XmlContext* context = nullptr;
    xml_context_create(0, element_set, attribute_set, 0, fold_case, element_table_size,
                       element_handlers, attribute_handlers, context);
    xml_feed(*context, bytes, split);
    if (!sound(*context)) __builtin_trap();
    xml_feed(*context, bytes + split, count - split);
    if (!sound(*context)) __builtin_trap();
    Run result{calls_hash, context->state, context->depth, context->encoding};
    xml_context_free(context);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    set_up_once();
    set_gblerr(ErrorCode::none);
    const bool fold_case = (data[0] & 0x80) != 0;
    const auto* bytes = reinterpret_cast<const char*>(data + 1);
    const std::size_t count = size - 1;
    const std::size_t split = count ? (data[0] & 0x7F) % (count + 1) : 0;

    const Run whole = run(bytes, count, count, fold_case);
    const Run parts = run(bytes, count, split, fold_case);
    if (whole.hash != parts.hash || whole.state != parts.state || whole.depth != parts.depth ||
        whole.encoding != parts.encoding) {
        __builtin_trap();
    }
    return 0;
}
