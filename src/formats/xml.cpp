// The markup reader: the tables of named integers, the byte machine, its
// actions, and the life of a run's context.
#include "formats/xml.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>

#include "core/memory.h"
#include "core/object_sets.h"
#include "core/object_store.h"
#include "core/stream.h"
#include "core/strings.h"
#include "geodesy/tables.h"
#include "shell/errors.h"

namespace norvanta {

namespace {

// ---- Byte classes ----

enum class ByteClass : uint8_t {
    ctrl,
    other,
    space,
    name,  // letters and '_'
    digit, // digits and '.'
    lt,
    gt,
    slash,
    equals,
    dquote,
    apos,
    amp,
    semicolon,
    bang,
    dash,
    lbracket,
    rbracket,
    question,
    hash,
    colon,
};
constexpr std::size_t byte_class_count = 20;
constexpr std::size_t byte_count = 256;
constexpr uint8_t unclassified = 0xFF;

struct ClassBuilder {
    std::array<uint8_t, byte_count> classes{};
    bool overlap = false;

    constexpr ClassBuilder() { classes.fill(unclassified); }
    constexpr void assign(ByteClass byte_class, int byte) {
        auto& slot = classes[static_cast<std::size_t>(byte)];
        if (slot != unclassified) overlap = true;
        slot = static_cast<uint8_t>(byte_class);
    }
    constexpr void range(ByteClass byte_class, int first, int last) {
        for (int byte = first; byte <= last; ++byte)
            assign(byte_class, byte);
    }
    constexpr void bytes(ByteClass byte_class, std::string_view list) {
        for (char byte : list)
            assign(byte_class, static_cast<unsigned char>(byte));
    }
};

// One line per class, as the classes are defined; the compiler checks that
// every byte has exactly one.
constexpr ClassBuilder classify_bytes() {
    using enum ByteClass;
    ClassBuilder b;
    // clang-format off
    b.range(ctrl, 0x00, 0x08); b.bytes(ctrl, "\x0B\x0C"); b.range(ctrl, 0x0E, 0x1F); b.bytes(ctrl, "\x7F");
    b.bytes(other, "$%()*+,@\\^`{|}~"); b.range(other, 0x80, 0xFF);
    b.bytes(space, "\t\n\r ");
    b.range(name, 'A', 'Z'); b.range(name, 'a', 'z'); b.bytes(name, "_");
    b.range(digit, '0', '9'); b.bytes(digit, ".");
    b.bytes(lt, "<"); b.bytes(gt, ">"); b.bytes(slash, "/"); b.bytes(equals, "=");
    b.bytes(dquote, "\""); b.bytes(apos, "'"); b.bytes(amp, "&"); b.bytes(semicolon, ";");
    b.bytes(bang, "!"); b.bytes(dash, "-"); b.bytes(lbracket, "["); b.bytes(rbracket, "]");
    b.bytes(question, "?"); b.bytes(hash, "#"); b.bytes(colon, ":");
    // clang-format on
    return b;
}

constexpr bool every_byte_has_one_class(const ClassBuilder& built) {
    if (built.overlap) return false;
    return std::none_of(built.classes.begin(), built.classes.end(),
                        [](uint8_t c) { return c == unclassified; });
}
static_assert(every_byte_has_one_class(classify_bytes()));

constexpr std::array<uint8_t, byte_count> byte_classes = classify_bytes().classes;

// ---- The byte machine ----
//
// Each byte is classed, and the cell (state, class) names an action and the
// next state. The action runs first, so a handler still sees the old state;
// when the action leaves gblerr set the run stops there and the state stays.
//
// What the rows are for:
//  0 to 2    content. Leading white space and control bytes are dropped; a run
//            of white space inside text keeps its first byte only; a '>' at the
//            very start of text is dropped, elsewhere kept; text ends at '<'.
//  3, 4      an entity reference in content; any byte that cannot belong to
//            one throws away the text gathered so far (kept on purpose:
//            "x &y z" delivers only "z").
//  5         after '<'. '?' stays here, so "<?xml ...?>" reads as an element
//            "xml" with attributes, popped at "?>". "<>" is ignored.
//  6         after "<!": a name opens an element, so "<!DOCTYPE x>" pushes an
//            element that nothing ever closes and that costs one level.
//  7 to 10   comments; "<!->" acts as a reset, and any run of dashes before
//            '>' ends the comment.
//  11 to 15  marked sections in content. Only CDATA keeps its bytes; "]]" may
//            be followed by white space before '>'; "]]]>" does not end one.
//  16 to 21  tag names and attributes. A namespace prefix is dropped at its
//            colon; an attribute without '=' reaches its handler by name only.
//  22 to 25  a double-quoted value; 33 to 36 the same for single quotes. A '"'
//            inside an entity reference of a value announces the reference as
//            an attribute name (kept on purpose, with the rest of the table).
//  26 to 32  a '<' inside a value, and a marked section there, which returns
//            to the double-quoted state whichever quote began the value. In
//            30 an apostrophe goes back to the keyword state with the byte
//            kept: the asymmetry is kept on purpose.
//  37, 38    close tags; white space after the name closes at once.
//  39 to 45  a copy of 26 to 32 for single quotes that nothing enters. They
//            stay so that the row numbers keep their meaning.
//  46        fault recovery: every syntax fault lands here, skips to the next
//            '>', and starts afresh. Nothing is ever reported.

enum class Action : uint8_t {
    nop,
    reset,
    text,
    flush,
    begintag,
    small,
    entity,
    open,
    close,
    pop,
    attrname,
    attrvalue,
    section,
    unwind,
    sectionend,
    prefix,
};
constexpr std::size_t action_count = 16;

constexpr std::size_t state_count = 47;
constexpr uint8_t recovery_state = 46;

struct Cell {
    Action action;
    uint8_t next;
};
using Row = std::array<Cell, byte_class_count>;

// Classes that share one cell, as a row lists them.
struct Rule {
    std::array<ByteClass, byte_class_count> classes;
    std::size_t class_count;
    Cell cell;
};

consteval Rule on(std::initializer_list<ByteClass> classes, Action action, uint8_t next) {
    Rule rule{{}, 0, {action, next}};
    for (ByteClass byte_class : classes)
        rule.classes[rule.class_count++] = byte_class;
    return rule;
}

// A row as the machine is described: what most classes do, then the others.
consteval Row row(Action action, uint8_t next, std::initializer_list<Rule> rules) {
    Row result{};
    result.fill(Cell{action, next});
    for (const Rule& rule : rules) {
        for (std::size_t i = 0; i < rule.class_count; ++i)
            result[static_cast<std::size_t>(rule.classes[i])] = rule.cell;
    }
    return result;
}

consteval std::array<Row, state_count> build_transitions() {
    using enum ByteClass;
    using enum Action;
    // clang-format off
    return {{
    /*  0 */ row(text, 1, {on({ctrl, space, gt}, nop, 0), on({lt}, nop, 5), on({amp}, small, 3)}),
    /*  1 */ row(text, 1, {on({ctrl}, nop, 1), on({space}, text, 2), on({lt}, nop, 5), on({amp}, small, 3)}),
    /*  2 */ row(text, 1, {on({ctrl, space}, nop, 2), on({lt}, nop, 5), on({amp}, small, 3)}),
    /*  3 */ row(reset, 0, {on({other, name, digit, hash, colon}, small, 4), on({semicolon}, entity, 1)}),
    /*  4 */ row(reset, 0, {on({other, name, digit, colon}, small, 4), on({semicolon}, entity, 1)}),
    /*  5 */ row(nop, 46, {on({space, question}, nop, 5), on({name, colon}, begintag, 16), on({gt}, nop, 0), on({slash}, flush, 37), on({bang}, nop, 6)}),
    /*  6 */ row(nop, 46, {on({name}, begintag, 16), on({gt}, nop, 0), on({dash}, nop, 7), on({lbracket}, nop, 11)}),
    /*  7 */ row(nop, 46, {on({gt}, reset, 0), on({dash}, nop, 8)}),
    /*  8 */ row(nop, 8, {on({dash}, nop, 9)}),
    /*  9 */ row(nop, 8, {on({dash}, nop, 10)}),
    /* 10 */ row(nop, 8, {on({gt}, nop, 0), on({dash}, nop, 10)}),
    /* 11 */ row(nop, 46, {on({space}, nop, 11), on({name}, small, 12), on({gt}, reset, 0)}),
    /* 12 */ row(nop, 46, {on({space}, nop, 12), on({name, digit, colon}, small, 12), on({gt}, reset, 0), on({lbracket}, section, 13)}),
    /* 13 */ row(text, 13, {on({ctrl}, nop, 13), on({rbracket}, small, 14)}),
    /* 14 */ row(unwind, 13, {on({rbracket}, small, 15)}),
    /* 15 */ row(unwind, 13, {on({space}, small, 15), on({gt}, sectionend, 0)}),
    /* 16 */ row(nop, 46, {on({space}, open, 17), on({name, digit, dash}, text, 16), on({gt}, open, 0), on({slash, question}, open, 18), on({colon}, prefix, 16)}),
    /* 17 */ row(nop, 46, {on({space}, nop, 17), on({name, colon}, text, 19), on({gt}, nop, 0), on({slash, question}, nop, 18)}),
    /* 18 */ row(nop, 46, {on({space}, nop, 18), on({gt}, pop, 0)}),
    /* 19 */ row(nop, 46, {on({space}, attrname, 20), on({name, digit, dash}, text, 19), on({gt}, attrname, 0), on({slash, question}, attrname, 18), on({equals}, attrname, 21), on({colon}, prefix, 19)}),
    /* 20 */ row(nop, 46, {on({space}, nop, 20), on({name, colon}, text, 19), on({gt}, nop, 0), on({slash, question}, nop, 18), on({equals}, nop, 21)}),
    /* 21 */ row(nop, 46, {on({space}, nop, 21), on({gt}, reset, 0), on({dquote}, nop, 22), on({apos}, nop, 33)}),
    /* 22 */ row(text, 23, {on({ctrl, space}, nop, 22), on({lt}, nop, 26), on({dquote}, attrvalue, 17), on({amp}, small, 24)}),
    /* 23 */ row(text, 23, {on({ctrl}, nop, 23), on({space}, text, 22), on({lt}, nop, 26), on({dquote}, attrvalue, 17), on({amp}, small, 24)}),
    /* 24 */ row(nop, 46, {on({other, name, digit, hash, colon}, small, 25), on({gt}, reset, 0), on({dquote}, attrname, 17), on({semicolon}, entity, 23)}),
    /* 25 */ row(nop, 46, {on({other, name, digit, colon}, small, 25), on({gt}, reset, 0), on({dquote}, attrname, 17), on({semicolon}, entity, 23)}),
    /* 26 */ row(nop, 46, {on({space}, nop, 26), on({gt}, nop, 0), on({bang}, nop, 27)}),
    /* 27 */ row(nop, 46, {on({space}, nop, 27), on({gt}, nop, 0), on({lbracket}, nop, 28)}),
    /* 28 */ row(nop, 46, {on({space}, nop, 28), on({name}, small, 29), on({gt}, reset, 0)}),
    /* 29 */ row(nop, 46, {on({space}, nop, 29), on({name, digit, colon}, small, 29), on({gt}, reset, 0), on({lbracket}, section, 30)}),
    /* 30 */ row(text, 30, {on({ctrl}, nop, 30), on({apos}, text, 29), on({rbracket}, small, 31)}),
    /* 31 */ row(unwind, 30, {on({space}, small, 30), on({rbracket}, small, 32)}),
    /* 32 */ row(unwind, 30, {on({gt}, sectionend, 23)}),
    /* 33 */ row(text, 34, {on({ctrl, space}, nop, 33), on({lt}, nop, 26), on({apos}, attrvalue, 17), on({amp}, small, 35)}),
    /* 34 */ row(text, 34, {on({ctrl}, nop, 34), on({space}, text, 33), on({lt}, nop, 26), on({apos}, attrvalue, 17), on({amp}, small, 35)}),
    /* 35 */ row(nop, 46, {on({other, name, digit, hash, colon}, small, 36), on({gt}, reset, 0), on({dquote}, attrname, 17), on({semicolon}, entity, 34)}),
    /* 36 */ row(nop, 46, {on({other, name, digit, colon}, small, 36), on({gt}, reset, 0), on({dquote}, attrname, 17), on({semicolon}, entity, 34)}),
    /* 37 */ row(nop, 46, {on({space}, nop, 37), on({name, colon}, text, 38), on({gt}, nop, 0)}),
    /* 38 */ row(nop, 46, {on({space}, close, 46), on({name, digit, dash}, text, 38), on({gt}, close, 0), on({colon}, prefix, 38)}),
    /* 39 */ row(nop, 46, {on({space}, nop, 39), on({gt}, nop, 0), on({bang}, nop, 40)}),
    /* 40 */ row(nop, 46, {on({space}, nop, 40), on({gt}, nop, 0), on({lbracket}, nop, 41)}),
    /* 41 */ row(nop, 46, {on({space}, nop, 41), on({name}, small, 42), on({gt}, reset, 0)}),
    /* 42 */ row(nop, 46, {on({space}, nop, 42), on({name, digit, colon}, small, 42), on({gt}, reset, 0), on({lbracket}, section, 43)}),
    /* 43 */ row(text, 43, {on({ctrl}, nop, 43), on({apos}, text, 42), on({rbracket}, small, 44)}),
    /* 44 */ row(unwind, 43, {on({space}, small, 43), on({rbracket}, small, 45)}),
    /* 45 */ row(unwind, 43, {on({gt}, sectionend, 34)}),
    /* 46 */ row(nop, 46, {on({gt}, reset, 0)}),
    }};
    // clang-format on
}

constexpr std::array<Row, state_count> transitions = build_transitions();

constexpr bool every_next_state_exists() {
    for (const Row& cells : transitions) {
        for (const Cell& cell : cells) {
            if (cell.next >= state_count) return false;
        }
    }
    return transitions[recovery_state][static_cast<std::size_t>(ByteClass::gt)].next == 0;
}
static_assert(every_next_state_exists());

// ---- Text and side buffers ----

void grow_text(XmlContext& context, int32_t by_bytes) {
    context.text_capacity += by_bytes;
    realloc_mem(context.text, static_cast<std::size_t>(context.text_capacity));
}

// The length never reaches the capacity after an append, so that the
// terminator always has room at the cursor, which never passes the length.
void append_text(XmlContext& context, char byte) {
    if (context.text_length + 1 >= context.text_capacity) grow_text(context, xml_text_growth_bytes);
    context.text[context.text_cursor++] = byte;
    ++context.text_length;
}

char* terminate_text(XmlContext& context) {
    if (context.text_capacity == 0) grow_text(context, xml_text_growth_bytes);
    context.text[context.text_cursor] = '\0';
    return context.text;
}

void empty_text(XmlContext& context) {
    context.text_cursor = 0;
    context.text_length = 0;
}

void empty_small(XmlContext& context) {
    context.small_length = 0;
}

const char* terminate_small(XmlContext& context) {
    context.small[context.small_length] = '\0';
    return context.small;
}

void fold_text(XmlContext& context) {
    if (!context.fold_case) return;
    for (int32_t i = 0; i < context.text_cursor; ++i) {
        char& c = context.text[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
}

// ---- Handler calls ----

int32_t top_value(const XmlContext& context) {
    return context.depth > 0 ? context.stack[context.depth - 1] : 0;
}

void call_element(XmlContext& context, int32_t value, char* text) {
    if (value < 0 || value >= context.handler_count) return;
    context.element_handlers[value](context, text);
}

void call_attribute(XmlContext& context, char* text) {
    if (!context.attribute_handlers) return;
    XmlAttributeHandler handler = context.attribute_handlers[context.attribute_id];
    if (handler) handler(context, top_value(context), text);
}

// Slot 0: an element the format does not list. It gets a value of its own,
// the next free slot, which holds the no-op; the name is added to this run's
// copy of the set, so that its close tag finds it again.
void unknown_element(XmlContext& context, char* text) {
    if (text || context.closing || context.depth == 0) return;
    ObjectId id = 0;
    auto* entry = cre_obj<XmlName>(&id);
    if (!entry) return;
    char* name = nullptr;
    str_copy(context.text, name);
    entry->name = name;
    entry->value = context.handler_count;

    const auto slots = static_cast<std::size_t>(context.handler_count) + 1;
    realloc_mem(context.element_handlers, slots * sizeof(XmlElementHandler));
    context.element_handlers[context.handler_count] = xml_no_op;
    oset_insert(context.element_set, id);
    realloc_mem(context.created_entries,
                static_cast<std::size_t>(context.created_count + 1) * sizeof(ObjectId));
    context.created_entries[context.created_count++] = id;
    context.stack[context.depth - 1] = context.handler_count;
    ++context.handler_count;
}

// ---- Actions ----

void act_nop(XmlContext&, unsigned char) {}

void act_reset(XmlContext& context, unsigned char) {
    context.attribute_id = 0;
    context.closing = 0;
    context.section_mark = 0;
    empty_text(context);
    empty_small(context);
}

void act_text(XmlContext& context, unsigned char byte) {
    append_text(context, static_cast<char>(byte));
}

// The test is on the length, not the cursor: after a discarded section at
// the start of the text the handler is still called, with an empty text.
void act_flush(XmlContext& context, unsigned char) {
    if (context.text_length == 0) return;
    if (context.depth > 0) call_element(context, top_value(context), terminate_text(context));
    empty_text(context);
}

void act_begintag(XmlContext& context, unsigned char byte) {
    act_flush(context, byte);
    append_text(context, static_cast<char>(byte));
}

void act_small(XmlContext& context, unsigned char byte) {
    if (context.small_length < xml_side_capacity)
        context.small[context.small_length++] = static_cast<char>(byte);
}

// "&#65;", "&#x41;" or "&lt;" in the side buffer. The value goes into the
// text as its low byte, unencoded: a character above 255 becomes one byte
// that is not UTF-8 (kept on purpose; the formats only ever see 8-bit text).
void act_entity(XmlContext& context, unsigned char) {
    const char* reference = terminate_small(context);
    long long value = 0;
    if (context.small_length >= 3 && reference[1] == '#') {
        if (reference[2] == 'x' || reference[2] == 'X') {
            value = std::strtoll(reference + 3, nullptr, 16);
        } else {
            value = std::strtoll(reference + 2, nullptr, 10);
        }
    } else if (context.small_length > 1) {
        value = name_lookup(context.entity_set, reference + 1, 0);
    }
    if (value != 0) append_text(context, static_cast<char>(value & 0xFF));
    empty_small(context);
}

// At the stack's limit the tag is dropped whole: no handler, no push. Its
// close tag then finds nothing, or an outer element of the same name.
void act_open(XmlContext& context, unsigned char) {
    context.section_mark = 0;
    terminate_text(context);
    if (context.depth < xml_stack_capacity) {
        fold_text(context);
        const int32_t value = name_lookup(context.element_set, context.text, 0);
        context.stack[context.depth++] = value;
        call_element(context, value, nullptr);
    }
    empty_text(context);
}

// Elements left open above the one closed are popped without a close call.
void act_close(XmlContext& context, unsigned char) {
    terminate_text(context);
    fold_text(context);
    const int32_t value = name_lookup(context.element_set, context.text, 0);
    for (int32_t i = context.depth - 1; i >= 0; --i) {
        if (context.stack[i] != value) continue;
        context.closing = 1;
        call_element(context, value, nullptr);
        std::fill(context.stack + i, context.stack + xml_stack_capacity, 0);
        context.depth = i;
        break;
    }
    context.closing = 0;
    empty_text(context);
}

// All that "/>" and "?>" do: the element gets no close call.
void act_pop(XmlContext& context, unsigned char) {
    if (context.depth == 0) return;
    context.stack[--context.depth] = 0;
}

void act_attrname(XmlContext& context, unsigned char) {
    terminate_text(context);
    fold_text(context);
    context.attribute_id = name_lookup(context.attribute_set, context.text, 0);
    call_attribute(context, nullptr);
    empty_text(context);
    empty_small(context);
}

void act_attrvalue(XmlContext& context, unsigned char) {
    call_attribute(context, terminate_text(context));
    empty_text(context);
}

// Only CDATA keeps what it holds; any other section is dropped at its end by
// putting the cursor back where it began.
void act_section(XmlContext& context, unsigned char) {
    const bool cdata = std::strcmp(terminate_small(context), "CDATA") == 0;
    context.section_mark = cdata ? 0 : context.text_cursor + 1;
    empty_small(context);
}

// A ']' or "]]" that did not end the section is text after all.
void act_unwind(XmlContext& context, unsigned char byte) {
    if (context.text_length + context.small_length + 1 >= context.text_capacity)
        grow_text(context, context.small_length + xml_text_growth_bytes);
    for (int32_t i = 0; i < context.small_length; ++i)
        context.text[context.text_cursor++] = context.small[i];
    context.text[context.text_cursor++] = static_cast<char>(byte);
    context.text_length += context.small_length + 1;
    empty_small(context);
}

// The length is not put back with the cursor (see act_flush).
void act_sectionend(XmlContext& context, unsigned char) {
    if (context.section_mark != 0) context.text_cursor = context.section_mark - 1;
    context.section_mark = 0;
    empty_small(context);
}

void act_prefix(XmlContext& context, unsigned char) {
    empty_text(context);
}

using ActionFunction = void (*)(XmlContext&, unsigned char);

// In the order of Action.
constexpr std::array<ActionFunction, action_count> actions = {
    act_nop,     act_reset,  act_text,       act_flush,  act_begintag, act_small,
    act_entity,  act_open,   act_close,      act_pop,    act_attrname, act_attrvalue,
    act_section, act_unwind, act_sectionend, act_prefix,
};

void step(XmlContext& context, unsigned char byte) {
    const Cell cell = transitions[static_cast<std::size_t>(context.state)][byte_classes[byte]];
    actions[static_cast<std::size_t>(cell.action)](context, byte);
    if (!error_pending()) context.state = cell.next;
}

constexpr std::size_t read_chunk_bytes = 4096;

// ---- The predefined entities ----

constinit XmlName predefined_entities[] = {
    xml_name("amp", '&'), xml_name("quot", '"'),  xml_name("lt", '<'),
    xml_name("gt", '>'),  xml_name("apos", '\''),
};
constexpr int32_t predefined_entity_count = 5;
static_assert(std::size(predefined_entities) == predefined_entity_count);

// Built once at start-up, before any thread that reads it exists.
constinit ObjectId predefined_entity_set = 0;

// The narrow text taken as 16-bit characters in little-endian pairs: what a
// plain copy as a wide string means where wchar_t is 16 bits, read without
// passing the terminator (an odd last byte pairs with it). Where wchar_t is
// 32 bits a surrogate pair becomes one character.
std::wstring utf16_pairs(const char* text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    const std::size_t length = std::strlen(text);
    std::wstring wide;
    uint32_t high_surrogate = 0;
    for (std::size_t i = 0; i < length; i += 2) {
        const uint32_t unit = bytes[i] | (i + 1 < length ? bytes[i + 1] << 8 : 0u);
        if (sizeof(wchar_t) > 2 && unit >= 0xDC00 && unit <= 0xDFFF && high_surrogate) {
            wide.back() =
                static_cast<wchar_t>(0x10000 + ((high_surrogate - 0xD800) << 10) + (unit - 0xDC00));
            high_surrogate = 0;
            continue;
        }
        high_surrogate = unit >= 0xD800 && unit <= 0xDBFF ? unit : 0;
        wide += static_cast<wchar_t>(unit);
    }
    return wide;
}

} // namespace

// ---- Named integers ----

void name_table_register(int32_t count, XmlName* table) {
    for (int32_t i = 0; i < count; ++i) {
        XmlName& row = table[i];
        if (row.id != 0 && find_obj_adr<XmlName>(row.id)) continue;
        ObjectId id = 0;
        auto* record = cre_obj<XmlName>(&id);
        if (!record) return;
        record->name = row.name;
        record->value = row.value;
        row.id = id;
        row.type = ObjectType::XmlName;
    }
}

void name_table_set(int32_t count, const XmlName* table, ObjectId& out_set) {
    oset_create(0, 0, ObjectType::XmlName, FieldKind::byte_string, offsetof(XmlName, name),
                out_set);
    for (int32_t i = count - 1; i >= 0; --i)
        oset_insert(out_set, table[i].id);
}

void name_table_install(int32_t count, XmlName* table, ObjectId& out_set) {
    name_table_register(count, table);
    name_table_set(count, table, out_set);
}

int32_t name_lookup(ObjectId set, const char* text, int32_t default_value) {
    if (!text) return default_value;
    bool exact = false;
    const ObjectId id = oset_search(set, text, &exact);
    if (!exact) return default_value;
    const auto* entry = find_obj_adr<XmlName>(id);
    return entry ? entry->value : default_value;
}

// ---- The reader ----

void xml_no_op(XmlContext&, char*) {}

void xml_context_create(ObjectId owner, ObjectId element_set, ObjectId attribute_set,
                        ObjectId entity_set, bool fold_case, int32_t handler_count,
                        const XmlElementHandler* element_handlers,
                        const XmlAttributeHandler* attribute_handlers, XmlContext*& out_context) {
    out_context = nullptr;
    if (error_pending()) return;
    XmlContext* context = nullptr;
    alloc_zero_mem(context, sizeof(XmlContext));
    context->owner = owner;
    context->element_set = oset_clone(element_set);
    if (context->element_set == 0) name_table_set(0, nullptr, context->element_set);
    context->attribute_set = attribute_set;
    context->entity_set = entity_set != 0 ? entity_set : predefined_entity_set;
    context->fold_case = fold_case ? 1 : 0;
    context->handler_count = std::max(handler_count, 1);
    alloc_mem(context->element_handlers,
              static_cast<std::size_t>(context->handler_count) * sizeof(XmlElementHandler));
    context->element_handlers[0] = unknown_element;
    for (int32_t i = 1; i < context->handler_count; ++i) {
        XmlElementHandler given = element_handlers ? element_handlers[i] : nullptr;
        context->element_handlers[i] = given ? given : xml_no_op;
    }
    context->attribute_handlers = attribute_handlers;
    context->encoding = xml_encoding_utf8;
    out_context = context;
}

void xml_read_file(ObjectId file_id, XmlContext& context) {
    if (error_pending()) return;
    if (open_stream(file_id, xml_stream_buffer_bytes, true) != 0) {
        set_gblerr(ErrorCode::file_access);
        return;
    }
    context.bytes_left = stream_remaining();
    char chunk[read_chunk_bytes];
    while (context.bytes_left > 0) {
        const auto count =
            static_cast<int32_t>(std::min<std::size_t>(read_chunk_bytes, context.bytes_left));
        read_bytes(chunk, count);
        if (error_pending()) return;
        for (int32_t i = 0; i < count; ++i) {
            --context.bytes_left;
            step(context, static_cast<unsigned char>(chunk[i]));
            if (error_pending()) return;
        }
    }
}

std::size_t xml_feed(XmlContext& context, const char* bytes, std::size_t count) {
    if (error_pending()) return 0;
    for (std::size_t i = 0; i < count; ++i) {
        step(context, static_cast<unsigned char>(bytes[i]));
        if (error_pending()) return i + 1;
    }
    return count;
}

void xml_context_free(XmlContext*& context) {
    if (!context) return;
    // A run stopped by a handler's error is freed all the same; the store
    // would do nothing while the word is set.
    ErrorHold hold;
    for (int32_t i = 0; i < context->created_count; ++i) {
        ObjectId id = context->created_entries[i];
        if (auto* entry = find_obj_adr<XmlName>(id)) free_mem(entry->name);
        del_obj_adr(ObjectType::XmlName, id);
    }
    free_mem(context->created_entries);
    oset_delete(context->element_set);
    free_mem(context->element_handlers);
    free_mem(context->text);
    free_mem(context->format_data);
    free_mem(context);
}

wchar_t* xml_text_to_wide(const XmlContext& context, const char* text, wchar_t*& out) {
    const char* source = text ? text : "";
    switch (context.encoding) {
    case xml_encoding_utf8:
        return wstr_from_utf8(source, out);
    case xml_encoding_utf16:
        return wstr_copy(utf16_pairs(source).c_str(), out);
    default: {
        // One character per byte, the reading of the "C" locale where it
        // takes every byte: 8-bit text comes out right, and no byte is refused
        // as the user's locale would refuse one outside its own encoding.
        std::wstring wide;
        for (const char* c = source; *c; ++c)
            wide += static_cast<wchar_t>(static_cast<unsigned char>(*c));
        return wstr_copy(wide.c_str(), out);
    }
    }
}

void xml_encoding_attribute(XmlContext& context, int32_t element_value, char* text) {
    constexpr int32_t xml_declaration_value = 1;
    if (element_value != xml_declaration_value || !text) return;
    if (std::strcmp(text, "utf-8") == 0) {
        context.encoding = xml_encoding_utf8;
    } else if (std::strcmp(text, "utf-16") == 0) {
        context.encoding = xml_encoding_utf16;
    } else {
        context.encoding = xml_encoding_other;
    }
}

void xml_read_data_set(ObjectId file_id, ObjectId data_set, const XmlFormat& format) {
    if (!get_obj_adr<Mobj>(data_set)) return;
    XmlContext* context = nullptr;
    xml_context_create(data_set, format.element_set, format.attribute_set, format.entity_set,
                       format.fold_case, format.handler_count, format.element_handlers,
                       format.attribute_handlers, context);
    if (!context) return;
    if (format.format_data_bytes != 0)
        alloc_zero_mem(context->format_data, format.format_data_bytes);
    ObjectId reference = 0;
    make_default_georeference(reference);
    ds_add(data_set, ObjectType::GeoReference, reference);
    xml_read_file(file_id, *context);
    xml_context_free(context);
    if (!error_pending() && format.finish) format.finish(data_set);
}

void xml_init() {
    if (predefined_entity_set != 0) return;
    set_obj_type<XmlName>();
    name_table_register(predefined_entity_count, predefined_entities);
    name_table_set(predefined_entity_count, predefined_entities, predefined_entity_set);
}

ObjectId xml_predefined_entities() {
    return predefined_entity_set;
}

} // namespace norvanta
