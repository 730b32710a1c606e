#pragma once

#include <cstddef>

#include "platform/Export.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The device's identity and version values, and the rewriting of `$(...)` expressions in a text.
//
// An expression is `$(` BODY `)`; BODY is either a NAME, replaced by that system value, or
// NAME OP NUMBER `|` FIRST [`|` SECOND], replaced by FIRST when the comparison of the (numeric)
// system value with NUMBER holds and by SECOND (empty when left out) otherwise. OP is one of
// ">", ">=", "<", "<=", "=". BODY may contain expressions itself; they are resolved first. Names
// are matched exactly and nothing is trimmed, so a blank beside an operator is part of the name
// or the number.
//
// Every failure is the generic failure code without a message; the caller says what failed.
//
// The owner (the management process) writes the values directly and hands the resolver by
// reference to every job. The resolver has no lock and never blocks; the owner serialises writes
// and resolutions (the location walk resolves under the management instance's lock).
class PROV_API ExpressionResolver {
  public:
    // The comparison of a conditional expression, passed around as an unsigned 16-bit number.
    enum eExpressionCondition : unsigned short {
        GREATER = 0,           // ">"
        GREATER_OR_EQUAL = 1,  // ">="
        LESS = 2,              // "<"
        LESS_OR_EQUAL = 3,     // "<="
        EQUAL = 4,             // "="
    };

    ExpressionResolver();
    ~ExpressionResolver();

    // Replaces every expression in `text`, in place. Success when no "$(" is left, otherwise the
    // first error; the replacements made before the error stay in `text` and the failing
    // expression stays as written. After each replacement the text is searched again from its
    // start, so a value that contains "$(" is resolved again: the values must be free of it. A
    // resolution that does not end by itself fails: see MAX_EXTRA_REPLACEMENTS and MAX_NESTING.
    [[nodiscard]] XCode replaceAllExpressions(String& text) const;
    // Resolves the expression whose "$(" begins at `start`, and every expression nested in it,
    // adding one to `count` per expression replaced. The same limits hold, counted from this
    // call's `count` and `text`.
    [[nodiscard]] XCode replaceSubExpression(String& text, int& count, int start) const;
    // A text resolves with at most one replacement per "$(" it holds plus this many: values free
    // of "$(" never need more (each replacement removes one "$(" and brings none), and the spare
    // ones leave room for a value ending in '$' that joins the text after it into one more
    // expression. A value that brings "$(" along (itself, another value that names it back, or
    // two copies of itself) would otherwise be resolved forever.
    static constexpr int MAX_EXTRA_REPLACEMENTS = 64;
    // Expressions nest at most this deep; deeper text (from a redirect, say) fails instead of
    // exhausting the stack.
    static constexpr int MAX_NESTING = 64;
    // True when `value` holds "$(": a device value that would be resolved again. The host
    // refuses such a value where it is set.
    static bool HOLDS_EXPRESSION(const String& value);

    // Resolves a body (the text between "$(" and ")", free of nested expressions) into `value`.
    [[nodiscard]] XCode replaceExpression(const String& expr, String& value) const;
    // Looks a system value up by its expression name. "system.mac-encrypted" and
    // "system.serial-encrypted" are reserved names: recognised, but they fail like unknown ones.
    // On failure `value` is unchanged.
    [[nodiscard]] XCode resolveExpression(const String& name, String& value) const;
    // Splits a condition at its operator, the first of '>', '<', '=' in `cond`. On failure the
    // outputs are unchanged.
    [[nodiscard]] XCode extractCondition(const String& cond, String& left, String& right,
                                         eExpressionCondition& op) const;
    // Cuts FIRST and SECOND out of a conditional body. Fails (outputs unchanged) when the body has
    // no '|'.
    [[nodiscard]] XCode extractPlaceholders(const String& expr, String& first,
                                            String& second) const;
    // Compares the system value `name` with `number` (both decimal, at most 4294967295) and sets
    // `value` to `first` when the comparison holds, else to `second`. On failure `value` is
    // unchanged.
    [[nodiscard]] XCode resolveConditionalExpr(unsigned short op, const String& name,
                                               const String& number, const String& first,
                                               const String& second, String& value) const;

    // The getters copy the value into the argument and always succeed; an empty value is an empty
    // string.
    XCode getMacAddress(String& value) const;
    XCode getSerialNumber(String& value) const;
    XCode getTftpServer(String& value) const;
    XCode getTftpFileName(String& value) const;
    XCode getHwMajor(String& value) const;
    XCode getHwMinor(String& value) const;
    XCode getSwMajor(String& value) const;
    XCode getSwMinor(String& value) const;
    XCode getSwBuild(String& value) const;
    XCode getSwDate(String& value) const;
    XCode getProductName(String& value) const;
    XCode getProductBaseName(String& value) const;
    XCode getCliMajorVersion(String& value) const;
    XCode getCliMinorVersion(String& value) const;
    XCode getModelName(String& value) const;
    XCode getOemName(String& value) const;
    XCode getHwVersion(String& value) const;
    XCode getHwRevision(String& value) const;
    XCode getSwVersion(String& value) const;

    // The value that `name` denotes, for hosts that fill the resolver from "NAME=VALUE" pairs:
    // the fourteen expression names ("system.mac", ..., "cli.major") and, for the five values
    // without one, "model", "oem", "hw.version", "hw.revision", "sw.version". Null for any other
    // name, the reserved "-encrypted" names included.
    static String* VALUE_BY_NAME(ExpressionResolver& resolver, const String& name);
    // The names that VALUE_BY_NAME knows, one per index from 0; null past the last.
    static const char* VALUE_NAME_AT(std::size_t index);

    // The device values, written by the owner, all empty after construction.
    String macAddress;       // "system.mac"
    String serialNumber;     // "system.serial"
    String tftpServer;       // "dhcp.66", DHCP option 66
    String tftpFileName;     // "dhcp.67", DHCP option 67
    String hwMajor;          // "system.hw.major"
    String hwMinor;          // "system.hw.minor"
    String swMajor;          // "system.sw.major"
    String swMinor;          // "system.sw.minor"
    String swBuild;          // "system.sw.build"
    String swDate;           // "system.sw.date"
    String productName;      // "system.product.name"
    String productBaseName;  // "system.product.basename"
    String cliMajorVersion;  // "cli.major"
    String cliMinorVersion;  // "cli.minor"
    // No expression names; read by the HTTP download only.
    String modelName;
    String oemName;
    String hwVersion;
    String hwRevision;
    String swVersion;

  private:
    // replaceSubExpression with the number of replacements that ends the resolution and the
    // nesting depth of the expression at `start`.
    [[nodiscard]] XCode replaceNested(String& text, int& count, int start, int limit,
                                      int depth) const;
};
