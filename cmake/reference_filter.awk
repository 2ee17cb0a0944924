# How Doxygen reads a public header (Doxyfile.in). The comment that opens a header is the documentation of the file; a
# row of operations.def is the declaration that the front end makes of it.
function declaration(row,    fields, kinds, count, i) {
  sub(/^[A-Z_]*\(/, "", row)
  sub(/\).*/, "", row)
  count = split(row, fields, /, */)
  for (i = 3; i <= count; ++i)
    kinds = kinds (i > 3 ? ", " : "") (fields[i] == "ptr" ? "void *" : "int32_t")
  return "int32_t qzfiapi_" fields[2] "(" kinds ");"
}
FNR == 1 { sub(/^\/\*/, "/** @file\n *"); print; next }
# The headers' own means, and the place where frontend.h includes the table, are no part of the reference.
/^#define QZFI_(BEGIN_DECLS|END_DECLS|OWN|SPARE|OPERATION|TREE|ALIAS|DIRECT)/ { print ""; next }
/^#include <qzfi\/operations.def>/ { print ""; next }
/^ \* The operations, declared from the table/ { print " * @file" }
FILENAME !~ /operations\.def$/ { print; next }
# A comment waits for its row: those of rows that no forwarder reaches are left out.
/^\/\*/ { comment = ""; waiting = 1; sub(/^\/\*/, "/**") }
waiting { comment = comment $0 "\n"; if (/\*\//) waiting = 0; next }
/^QZFI_(OPERATION|TREE|ALIAS)\(/ { printf "%s%s\n", comment, declaration($0); comment = ""; next }
/^QZFI_(OWN|SPARE)\(/ { comment = ""; next }
/^#undef/ { next }
{ print }
