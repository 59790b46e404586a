// StringUtils: byte-wise string helpers, printf-style formatting and number
// text conversion.
#ifndef ZORV_FOUNDATION_TEXT_STRINGUTILS_H_
#define ZORV_FOUNDATION_TEXT_STRINGUTILS_H_

#include "foundation/collection/vector.h"
#include "foundation/export.h"
#include "foundation/text/safestring.h"

#if defined(__GNUC__) || defined(__clang__)
#define ZORV_PRINTF_FORMAT(formatIndex, firstArg) \
  __attribute__((format(printf, formatIndex, firstArg)))
#else
#define ZORV_PRINTF_FORMAT(formatIndex, firstArg)
#endif

namespace zorv {
namespace foundation {
namespace text {

// A family of static functions over plain byte strings. Nothing here uses the
// C locale: case folding touches the ASCII letters only (bytes 128 to 255 are
// never changed), and a blank is exactly a space (0x20) or a horizontal tab
// (0x09). Every function is safe to call from any thread at any time. Results
// are values owned by the caller. No function throws lang::Exception; those
// that build a string can throw std::bad_alloc (or the standard length error)
// when the result cannot be allocated, except the formatting functions, which
// return an empty string instead.
class ZORV_FOUNDATION_EXPORT StringUtils {
 public:
  StringUtils() = delete;

  // ---- Comparison, prefixes and hashing -----------------------------------

  // Compares byte-wise as unsigned bytes and returns the difference of the
  // first differing bytes (0 when equal). A null `a` gives 0 whatever `b` is;
  // otherwise a null `b` gives 1.
  static int Compare(const char* a, const char* b);

  // As Compare, with both bytes first folded to upper case (ASCII only); the
  // difference is taken between the folded bytes. Same null rules. On x86 it
  // may read up to 15 bytes past a text's terminator, as the C library's
  // string functions do, but never past the end of the page that holds it.
  static int CompareNoCase(const char* a, const char* b);

  // True when `text` begins with `prefix`. False when either is null or
  // `prefix` is empty.
  static bool StartWith(const char* text, const char* prefix);

  // True when `text` ends with `suffix`. False when either is null, when
  // `suffix` is empty or when it is longer than `text`.
  static bool EndWith(const char* text, const char* suffix);

  // The 32-bit FNV-1a hash of the bytes in [begin, end), each folded to upper
  // case first, so texts equal under CompareNoCase hash alike. Zero bytes in
  // the range are hashed like any other. An empty range (or a null `begin`,
  // or `end` before `begin`) gives 2166136261.
  static unsigned int HashNoCase(const char* begin, const char* end);

  // The number of leading bytes `a` and `b` have in common, not counting the
  // terminating zero; 0 when either is null.
  static int GetPublicPrefix(const char* a, const char* b);

  // ---- Trimming, case conversion, splitting --------------------------------

  // `s` without leading and trailing blanks. A text of blanks only gives "".
  // When leading blanks were removed, the result also ends at the first zero
  // byte of `s` (see TrimLeft).
  static foundation::SafeString Trim(const foundation::SafeString& s);

  // `s` without leading blanks. When there were none, the result is a full
  // copy of `s`; when some were skipped, the result runs from the first
  // non-blank byte to the first zero byte (an embedded zero byte ends it).
  static foundation::SafeString TrimLeft(const foundation::SafeString& s);

  // `s` without trailing blanks.
  static foundation::SafeString TrimRight(const foundation::SafeString& s);

  // A copy of the zero-terminated `s` with 'a'..'z' turned into 'A'..'Z';
  // "" for null.
  static foundation::SafeString ToUpper(const char* s);

  // A copy of the zero-terminated `s` with 'A'..'Z' turned into 'a'..'z';
  // "" for null.
  static foundation::SafeString ToLower(const char* s);

  // Appends the pieces of the zero-terminated `text` between separators to
  // `pieces` (which is not cleared), in order. Adjacent separators, and a
  // separator at either end, give empty pieces. Returns true when at least
  // one separator was found; otherwise exactly one piece, the whole text, was
  // appended. A null `text` appends one empty string and returns false.
  static bool Split(const char* text, char separator,
                    collection::Vector<foundation::SafeString>& pieces);

  // ---- Formatting -----------------------------------------------------------

  // The printf-style expansion of `format` with the further arguments: the
  // text the C library's vsnprintf writes for them, in the calling thread's
  // locale. Returns "" for a null format, when vsnprintf fails (an encoding
  // error) and when the result cannot be allocated; never throws. The same
  // result as _InternalFormat, with the compiler checking the arguments;
  // everyday conversions (d i u x X o c s f %, plain flags and widths) of
  // texts up to 512 bytes are written without going through vsnprintf.
  static foundation::SafeString Format(const char* format, ...) ZORV_PRINTF_FORMAT(1, 2);

  // ---- Integers to text ------------------------------------------------------

  // Decimal text, '-' before negative values, "0" for zero.
  static foundation::SafeString IntToString(int value);
  static foundation::SafeString LongToString(long long value);
  static foundation::SafeString UIntToString(unsigned int value);
  static foundation::SafeString ULongToString(unsigned long long value);

  // Upper-case hexadecimal digits without leading zeros, after "0x" when
  // `prefix` is true: 255 gives "0xFF" or "FF", 0 gives "0x0" or "0".
  static foundation::SafeString ULongToHexString(unsigned long long value, bool prefix);

  // The shortest decimal text that reads back (through StringToFloat) to
  // exactly `value`: plain digits with an optional '-' and '.' ("0.1",
  // "-2.5", "100"), or digits with an exponent ("1e+22", "1.5e-07") when
  // that is shorter. Not-a-number gives "nan" (whatever its sign bit), the
  // infinities "inf" and "-inf". GetNumberFormat classifies every result as
  // 1 (integral values written without point or exponent) or 2.
  static foundation::SafeString FloatToString(double value);

  // ---- Text to numbers -------------------------------------------------------
  // The parsers are strict and locale-free and return 0 for any bad text, so
  // "0" and bad input are told apart only through GetNumberFormat. They
  // allocate nothing and never throw, whatever the length of the text.
  //
  // Decimal rules: one optional '+' or '-'; leading zeros are skipped (a run
  // of zeros keeps its last one); the remaining byte count (to the string's
  // full length) must be 1 to the digit limit (10 for int and unsigned int,
  // 19 for long long, 20 for unsigned long long); every byte up to the first
  // zero byte must be a decimal digit. There is no range check: a text within
  // the digit limit that exceeds the type's range wraps modulo 2^32 or 2^64
  // ("4294967297" gives 1), and '-' negates also the unsigned results
  // (StringToUInt("-1") is 4294967295).
  static int StringToInt(const foundation::SafeString& text);
  static long long StringToLong(const foundation::SafeString& text);
  static unsigned int StringToUInt(const foundation::SafeString& text);
  static unsigned long long StringToULong(const foundation::SafeString& text);

  // "0x" or "0X" followed by 1 to 16 hexadecimal digits of either case (the
  // whole text 3 to 18 bytes long); no sign. 0 for anything else.
  static unsigned long long HexStringToULong(const foundation::SafeString& text);

  // A floating-point text: "nan", "inf", "+inf", "-inf", or an optional sign,
  // decimal digits with at most one '.', and an optional 'e'/'E' exponent
  // (after at least one digit) that follows the StringToInt rules. Returns
  // the correctly rounded value; 0.0 for any bad text.
  static double StringToFloat(const foundation::SafeString& text);

  // Classifies `text`: 0 not a number, 1 decimal integer, 2 floating-point
  // (a point, an exponent, or one of "nan", "inf", "-inf", "+inf"), 3
  // hexadecimal integer with a "0x"/"0X" prefix. Like the parsers, it stops
  // at the first zero byte. A text of 1 parses with the decimal parsers
  // whose digit limit it keeps; a text of 3 with 1 to 16 digits parses with
  // HexStringToULong. "1.", ".5" and "-." are 2; "0x" is 0.
  static int GetNumberFormat(const foundation::SafeString& text);

  // ---- End of public API -----------------------------------------------------
  // Helpers for the library's own formatting front ends; callers use Format.

  // Formats into a 100-byte work string with vsnprintf, doubling the size
  // (100, 200, 400, ...) until the text fits. Returns "" for a null format,
  // when the work string cannot grow, and when vsnprintf reports an encoding
  // error (a negative count); never throws.
  static foundation::SafeString _InternalFormat(const char* format, ...) ZORV_PRINTF_FORMAT(1, 2);
};

}  // namespace text
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_TEXT_STRINGUTILS_H_
