"""mistakes.py INCLUDE_DIR COMPILER...: a caller's mistake in a typed wrapper of qzfi_fi.h is a compile error.

For each wrapper: the right call compiles; each argument of another type, one argument too few and one too many do not.
A compiler is the pair CC:CXX.
"""
import pathlib
import re
import subprocess
import sys
import tempfile

WRAPPER = re.compile(r"static inline int32_t (qfi_op_\w+)\(([^)]*)\)")
C_ERRORS = ["-Werror=incompatible-pointer-types", "-Werror=int-conversion"]


def wrappers(header):
    """Names with the types of their parameters."""
    for name, parameters in WRAPPER.findall(header):
        texts = [" ".join(text.split()) for text in parameters.split(",")]
        untyped = [text for text in texts if re.match(r"void \*+(?!\*|reserved|buffer)", text)]
        if untyped:
            sys.exit(f"{name} takes anything for {', '.join(untyped)}")
        yield name, [re.sub(r"\w+$", "", text).strip() for text in texts if text != "void"]


def value(kind):
    return f"({kind})0"


def mistake(kind):
    """Of another type, without a cast."""
    if kind == "void *":
        return "number"
    return "wrong" if kind.endswith("*") else "text"


def lines_of(name, kinds):
    """Calls, each with whether it is right."""
    values = [value(kind) for kind in kinds]
    yield name, values, True
    yield name, values[:-1], not values
    yield name, values + ["0"], False
    for index, kind in enumerate(kinds):
        yield name, values[:index] + [mistake(kind)] + values[index + 1:], False


def check(compiler, language, include, calls):
    # One unit of all calls, a line each: the compiler goes on behind an error, and names its line.
    head = ["#include <qzfi_fi.h>", "struct stranger; extern struct stranger *wrong; extern long number;",
            "extern const struct stranger *text; int32_t used(void);", "int32_t used(void) {"]
    body = [f"(void){name}({', '.join(values)});" for name, values, _ in calls]
    with tempfile.TemporaryDirectory() as folder:
        unit = pathlib.Path(folder) / f"unit.{language}"
        unit.write_text("\n".join(head + body + ["return 0; }", ""]))
        limit = "-ferror-limit=0" if "clang" in compiler else "-fmax-errors=0"
        flags = C_ERRORS if language == "c" else []
        result = subprocess.run([compiler, "-fsyntax-only", limit, *flags, f"-I{include}", str(unit)],
                                capture_output=True, text=True, check=False)
        refused = {int(line) for line in re.findall(rf"^{re.escape(str(unit))}:(\d+):\d+: (?:fatal )?error", result.stderr,
                                                    re.MULTILINE)}
    wrong = [f"{'refused' if is_right else 'taken'}: {text}"
             for line, (text, (_, _, is_right)) in enumerate(zip(body, calls), len(head) + 1)
             if (line in refused) == is_right]
    if wrong or refused - set(range(len(head) + 1, len(head) + 1 + len(body))):
        sys.exit("\n".join([f"{compiler}, {language}:"] + wrong) + "\n" + result.stderr[:2000])


def main():
    include, *compilers = sys.argv[1:]
    header = (pathlib.Path(include) / "qzfi_fi.h").read_text()
    calls = [call for name, kinds in wrappers(header) for call in lines_of(name, kinds)]
    if header.count("static inline int32_t qfi_op_") < 88 or not compilers:
        sys.exit("nothing to check")
    for pair in compilers:
        cc, cxx = pair.split(":")
        check(cc, "c", include, calls)
        check(cxx, "cpp", include, calls)
    print(f"{len(calls)} calls by {2 * len(compilers)} compilers: each right one is taken, each mistake refused")


main()
