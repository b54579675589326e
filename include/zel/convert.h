/* Conversion of collected value bytes into text.
 *
 * An address becomes a quoted dotted quad or quoted colon-grouped hexadecimal, an object
 * identifier becomes dotted decimal arcs, an octet string becomes its own text (quoted and
 * escaped when it holds a comma, a double quote or a line feed) or, when it holds anything
 * unprintable, quoted colon-separated hexadecimal. A fifth operation reads the numeric
 * configuration id out of the text a configuration request returns. The caller picks the
 * conversion; the value's tag is not read.
 *
 * Buffers: `buf` has room for `buf_len` + 1 bytes, `buf_len` characters and one more. No
 * conversion writes past those buf_len + 1 bytes, whatever the input. The counts returned
 * never include a terminator.
 *
 * Threads: no state, no lock, no allocation (except the configuration id parser's small scratch
 * block); any number of threads may convert at once into distinct buffers. The octet string
 * conversions classify bytes by the calling thread's locale (uselocale, else the global one).
 *
 * Failures: none is reported. Inputs below the limits each operation states are handled as
 * described there and never make a conversion read outside the value's bytes or the text, or
 * write outside the buffer.
 */
#ifndef ZEL_CONVERT_H_
#define ZEL_CONVERT_H_

#include <stdint.h>

#include <zel/data.h>
#include <zel/export.h>

ZEL_BEGIN_DECLS

/* Largest `nbytes` the octet string conversions render: 3 * nbytes + 1 still fits in 32 bits. */
#define ZEL_CONVERT_OCTETS_MAX 1431655764u

/* Renders an address.
 * - len 4: the four bytes as unsigned decimals between double quotes: 10, 0, 0, 1 gives
 *   "10.0.0.1" (10 characters with the quotes).
 * - otherwise the bytes in pairs, G = len / 2 groups (an odd last byte is ignored), each pair as
 *   four lower-case hexadecimal digits, groups joined by ':', all between double quotes: 16
 *   bytes give eight groups, "fe80:0000:...:0001" (41 characters).
 * Calling order: a measure call (buf_len 0; buf may be NULL) returns the length L and writes
 * nothing; the caller provides L + 1 bytes and calls again with buf_len L, which writes the text
 * and its terminator.
 * A buf_len that is not 0 but below L: the first buf_len characters of the text are written and
 * terminated (buf_len + 1 bytes); the result is still L. The text is the one that chaining the C
 * library's bounded formatter over the pieces would leave.
 * Returns the full length L of the text, without terminator.
 * Below the limits (value NULL: returns 0 and writes nothing; buf NULL with buf_len not 0: a
 * measure call; len 0 or 1, or data NULL: no group can be formed, the text is the empty quoted
 * text "" of length 2). A text longer than INT32_MAX characters (only from a value of more than
 * 858 million bytes) reports INT32_MAX and is cut as for a short buf_len. */
ZEL_API int32_t zel_convert_stream_to_ip_addr_str(char *buf, uint32_t buf_len,
                                                  const zel_data_value_t *value);

/* Renders an object identifier: data holds A = len / 4 consecutive 32-bit unsigned arcs in host
 * byte order (trailing bytes are ignored), written as unsigned decimals joined by '.', no
 * quotes and no leading dot: 1.3.6.1.2.1.1.5.0; one arc gives a bare number; 0xFFFFFFFF prints
 * as 4294967295. The data need not be aligned.
 * Calling order, cut texts and result: as zel_convert_stream_to_ip_addr_str.
 * Below the limits (value NULL: returns 0 and writes nothing; buf NULL with buf_len not 0: a
 * measure call; len below 4 or data NULL: no arc, the text is empty: returns 0, and a call with
 * buf_len not 0 writes only the terminator). A text longer than INT32_MAX characters reports
 * INT32_MAX and is cut as for a short buf_len. */
ZEL_API int32_t zel_convert_stream_to_oid_str(char *buf, uint32_t buf_len,
                                              const zel_data_value_t *value);

/* Length of the octet string rendering of the first `nbytes` bytes of data (len is not read;
 * nbytes must not exceed the bytes behind data). A byte is text when isprint or isspace of the
 * calling thread's locale calls it so (in the C locale 0x09 to 0x0D and 0x20 to 0x7E).
 * - All bytes text: the length of the text form: 1 per byte, 2 per double quote or backslash,
 *   plus 2 for the enclosing quotes when a double quote, line feed or comma occurs.
 * - Otherwise 3 * nbytes; the hex form's real length is one more.
 * Returns 0 for nbytes 0, and below the limits: value NULL, data NULL, or nbytes above
 * ZEL_CONVERT_OCTETS_MAX. Writes nothing. */
ZEL_API uint32_t zel_convert_stream_to_ascii_or_hex_len(const zel_data_value_t *value,
                                                        uint32_t nbytes);

/* Renders the first `nbytes` bytes of data (len is not read) into buf, with no terminator.
 * - Text form, when every byte is text (same test as the length operation): the bytes in order,
 *   each backslash and double quote preceded by a backslash; when a double quote, line feed or
 *   comma occurs, the whole text is enclosed in double quotes (line feeds and commas stay as they
 *   are, inside the quotes). Other white space (tab, carriage return) is copied and does not
 *   quote. a,b gives "a,b" (5 characters); say "hi" gives "say \"hi\"" (12).
 * - Hex form, otherwise: each byte as two lower-case hexadecimal digits, joined by ':', between
 *   double quotes: 0x00 0x01 0xFF gives "00:01:ff", 3 * nbytes + 1 characters.
 * Calling order: L = zel_convert_stream_to_ascii_or_hex_len(value, nbytes); the caller provides
 * L + 1 bytes and calls with buf_len L and the same nbytes. The text form then writes L
 * characters and leaves the last byte alone (a zeroed buffer ends terminated); the hex form
 * writes L + 1 characters and fills the buffer. Use the returned count.
 * Any buf_len: the conversion writes the first min(F, buf_len + 1) characters of the full form
 * F (text or hex) and returns that count; with buf_len L that is the whole form. A shorter
 * buf_len cuts the form where the room ends (possibly inside an escape or before the closing
 * quote); nothing else in buf is changed.
 * Returns the number of characters written: 0 for nbytes 0, and below the limits (value NULL,
 * data NULL, buf NULL, nbytes above ZEL_CONVERT_OCTETS_MAX) where nothing is written. */
ZEL_API uint32_t zel_convert_stream_to_ascii_or_hex(char *buf, uint32_t buf_len,
                                                    const zel_data_value_t *value, uint32_t nbytes);

/* Reads the configuration id out of a configuration result text.
 * Either argument NULL: nothing happens. Otherwise *config_id is set to 0 and a small zeroed
 * scratch block is allocated (if that fails the id stays 0). The first character of the text is
 * skipped, whatever it is, and the first '/' after it is looked for:
 * - no '/': the id is the number at the start of the rest of the text;
 * - a '/' k characters after the skipped one: for k from 1 to 10 the id is the number in those
 *   k characters; for k 0 or above 10 the id stays 0.
 * Numbers are read as strtol reads base 10 (leading white space of the calling thread's locale
 * and a sign accepted, stops at the first non-digit, no digits give 0) into 32 bits, clamping to
 * -2147483648 or 2147483647, and stored as 32-bit unsigned: "/42/ok" gives 42, "#7" gives 7,
 * "//x" gives 0, "/2147483648/x" gives 2147483647, "/-1/" gives 0xFFFFFFFF.
 * Below the limits: an empty text sets the id to 0 (nothing is allocated).
 * The scratch block is released before returning; the text is not changed. */
ZEL_API void zel_extract_config_id_from_config_result(uint32_t *config_id,
                                                      const char *config_result);

ZEL_END_DECLS

#endif /* ZEL_CONVERT_H_ */
