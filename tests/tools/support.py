"""What the tests of the command stand on: an installation root, the command, terminals, file systems, schemas.

A test file ends with `support.main()` under `if __name__ == "__main__"`; its process has mounts of its own. Without
CTest: QZFI_BUILD=BUILD python3 test_NAME.py [-v] [Class.test]. Two variables spare the installation:
QZFI_TEST_ROOT   an installation root that is copied instead of installing the build tree
QZFI_TEST_TOOL   the command that is put into that copy
"""
import ctypes
import fcntl
import json
import os
import pathlib
import re
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

import jsonschema

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = os.environ.get("QZFI_BUILD", "")
SANITIZED = bool(os.environ.get("QZFI_SANITIZE"))
# What takes a second may take this many under a sanitizer on a busy machine.
PATIENCE = 240 if SANITIZED else 60
SKIPPED = 77

COMMANDS = re.findall(r"^QZFI_COMMAND\((\w+)\)$", (SOURCE / "tools/qzfi/commands.def").read_text(), re.M)
IMAGE_ID = r"[0-9]{8}T[0-9]{6}Z-[0-9a-f]{8}"
LOCAL_TIME = r"[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"

_CLONE_NEWNS = 0x00020000
_MS_REC, _MS_PRIVATE = 0x4000, 0x40000
_libc = ctypes.CDLL(None, use_errno=True)
_mounts_obstacle = "the mounts are not private: run the file by itself"
_mounted = []
_root = None
_scratch = None


def _own_mounts():
    """Gives this process mounts of its own, so that whatever is mounted ends with it."""
    global _mounts_obstacle
    if _libc.unshare(_CLONE_NEWNS) != 0 or _libc.mount(None, b"/", None, _MS_REC | _MS_PRIVATE, None) != 0:
        _mounts_obstacle = "no mounts of its own here: " + os.strerror(ctypes.get_errno())
    else:
        _mounts_obstacle = None


def scratch():
    """The folder of this process for whatever it needs; gone at its end."""
    global _scratch
    if _scratch is None:
        _scratch = tempfile.TemporaryDirectory(prefix="qzfi-tools-")
    return pathlib.Path(_scratch.name)


def install(target):
    """Makes `target` an installation root."""
    given = os.environ.get("QZFI_TEST_ROOT")
    if given:
        subprocess.run(["cp", "-a", given, str(target)], check=True)
        if os.environ.get("QZFI_TEST_TOOL"):
            (target / "bin").mkdir(exist_ok=True)
            shutil.copy(os.environ["QZFI_TEST_TOOL"], target / "bin" / "qzfi")
    else:
        subprocess.run([os.environ.get("QZFI_CMAKE", "cmake"), "--install", BUILD, "--prefix", str(target)],
                       check=True, stdout=subprocess.DEVNULL)
    return target


def root():
    """The installation root of this process, made at the first call."""
    global _root
    if _root is None:
        _root = install(scratch() / "root")
    return _root


def environment(**changes):
    """The environment of the command: the caller's without what would change its output. None removes."""
    result = {name: value for name, value in os.environ.items()
              if not name.startswith(("QFI_", "LC_")) and name not in ("NO_COLOR", "COLUMNS", "LINES", "LANGUAGE")}
    result.update(LC_ALL="C.UTF-8", LANG="C.UTF-8", TZ="UTC", TERM="xterm", HOME=str(scratch()))
    for name, value in changes.items():
        result.pop(name, None)
        if value is not None:
            result[name] = value
    return result


class Result:
    """How a command ended: its exit code (negative: the signal), and what it printed."""

    def __init__(self, command, code, out, err):
        self.command, self.code, self.out, self.err = command, code, out, err

    def __str__(self):
        return f"{self.command}\nexit code {self.code}\n--- stdout\n{self.out}\n--- stderr\n{self.err}"


def run(command, env=None, **options):
    """Runs any command, without a terminal, to its end."""
    command = [str(word) for word in command]
    options.setdefault("stdin", subprocess.DEVNULL if "input" not in options else None)
    if options["stdin"] is None:
        del options["stdin"]
    done = subprocess.run(command, env=env or environment(), capture_output=True, encoding="utf-8",
                          errors="surrogateescape", timeout=PATIENCE, start_new_session=True, **options)
    return Result(command, done.returncode, done.stdout, done.stderr)


def tool_command(*arguments):
    return [str(root() / "bin" / "qzfi"), "--root", str(root()), *[str(word) for word in arguments]]


def qzfi(*arguments, env=None, **options):
    """Runs the command below the installation root, without a terminal."""
    return run(tool_command(*arguments), env=env, **options)


def start(*arguments, env=None, **options):
    """Starts the command and lets it run; its standard output and error are pipes unless given."""
    options.setdefault("stdout", subprocess.PIPE)
    options.setdefault("stderr", subprocess.PIPE)
    return subprocess.Popen(tool_command(*arguments), env=env or environment(), stdin=subprocess.DEVNULL,
                            encoding="utf-8", start_new_session=True, **options)


class Terminal:
    """A command on a terminal of its own, which controls it: Ctrl-C sent there reaches its foreground group."""

    def __init__(self, command, columns=80, lines=24, env=None, cwd=None):
        master, slave = os.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))
        self.master, self.output, self.columns = master, b"", columns
        self.command = [str(word) for word in command]
        # setsid makes the terminal the controlling one, without code between fork and exec.
        self.process = subprocess.Popen(["setsid", "--ctty", "--wait", *self.command], stdin=slave, stdout=slave,
                                        stderr=slave, env=env or environment(), cwd=cwd, start_new_session=False)
        os.close(slave)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        os.close(self.master)

    def _read(self, timeout):
        """Reads what is there within the time; False at the end."""
        if not select.select([self.master], [], [], timeout)[0]:
            return True
        try:
            data = os.read(self.master, 65536)
        except OSError:  # the last one that had the terminal open is gone
            return False
        self.output += data
        return bool(data)

    def read_until(self, pattern):
        """Waits until the output so far has the pattern."""
        deadline = time.monotonic() + PATIENCE
        while not re.search(pattern, self.text()):
            if time.monotonic() > deadline:
                raise AssertionError(f"no {pattern!r} in the terminal's output: {self.output!r}")
            if not self._read(0.2):
                raise AssertionError(f"ended without {pattern!r}: {self.output!r}")

    def send(self, data):
        os.write(self.master, data.encode() if isinstance(data, str) else data)

    def finish(self):
        """Waits for the end; gives exit code and text."""
        deadline = time.monotonic() + PATIENCE
        while self._read(0.2):
            if time.monotonic() > deadline:
                raise AssertionError(f"still running: {self.command}: {self.output!r}")
        code = self.process.wait(PATIENCE)
        return Result(self.command, 128 - code if code < 0 else code, self.text(), "")  # as a shell says it

    def text(self):
        return self.output.decode("utf-8", "surrogateescape").replace("\r\n", "\n")


def on_terminal(*arguments, columns=80, env=None):
    """Runs the command on a terminal to its end."""
    with Terminal(tool_command(*arguments), columns=columns, env=env) as terminal:
        return terminal.finish()


def wait_for(condition, what="the condition", timeout=PATIENCE):
    """Waits until condition() is true; gives its value."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what} did not come true within {timeout} s")
        time.sleep(0.01)


def loop_filesystem(kind, megabytes=256, options=None):
    """Mounts a new file system of that kind; gives its mount point. Skips the test where nobody may mount."""
    if _mounts_obstacle:
        raise unittest.SkipTest(_mounts_obstacle)
    makers = {"btrfs": ["mkfs.btrfs", "-q", "-f"], "xfs": ["mkfs.xfs", "-q", "-f", "-m", "reflink=1"],
              "ext4": ["mkfs.ext4", "-q", "-F"]}
    disk = pathlib.Path(tempfile.mkstemp(prefix=kind + "-", suffix=".disk", dir=scratch())[1])
    mount_point = disk.with_suffix(".mount")
    mount_point.mkdir()
    with open(disk, "r+b") as file:
        file.truncate(megabytes << 20)
    path = environment()["PATH"] + ":/usr/sbin:/sbin"
    for command in ([*makers[kind], str(disk)],
                    ["mount", "-o", "loop" + ("," + options if options else ""), str(disk), str(mount_point)]):
        done = run(command, env=environment(PATH=path))
        if done.code != 0:
            raise unittest.SkipTest(f"no {kind} file system here: {done.err.strip()}")
    _mounted.append(mount_point)
    return mount_point


def loop_filesystem_again(mount_point):
    """Mounts one again that was unmounted."""
    done = run(["mount", "-o", "loop", mount_point.with_suffix(".disk"), mount_point])
    if done.code != 0:
        raise AssertionError("not mounted again: " + done.err.strip())


def memory_filesystem(options):
    """Mounts a file system in memory, as in "size=1m"; gives its mount point."""
    if _mounts_obstacle:
        raise unittest.SkipTest(_mounts_obstacle)
    mount_point = tempfile.mkdtemp(prefix="memory-", dir=scratch())
    done = run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", mount_point])
    if done.code != 0:
        raise unittest.SkipTest("no file system in memory here: " + done.err.strip())
    _mounted.append(mount_point)
    return pathlib.Path(mount_point)


def all_schemas():
    """All schemas of documents by the names under which they refer to each other."""
    folder = SOURCE / "tools" / "qzfi" / "schema"
    return {path.name: json.loads(path.read_text()) for path in folder.glob("*.json")}


class ToolTest(unittest.TestCase):
    """A test with a folder of its own, `self.folder`, and a tree `self.data` in it that can be frozen."""

    maxDiff = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="test-", dir=scratch()))
        self.data = self.folder / "data"
        self.store = self.folder / "store"
        self.data.mkdir()
        (self.data / "file").write_text("content\n")
        (self.data / "folder").mkdir()
        (self.data / "folder" / "other").write_text("other\n")

    def succeed(self, *arguments, **options):
        """Runs the command, which must end with 0 and say nothing on standard error; gives its output."""
        result = qzfi(*arguments, **options)
        self.assertEqual((result.code, result.err), (0, ""), str(result))
        return result.out

    def fail_with(self, code, *arguments, **options):
        """Runs the command, which must end with that code and print nothing; gives its standard error."""
        result = qzfi(*arguments, **options)
        self.assertEqual((result.code, result.out), (code, ""), str(result))
        return result.err

    def freeze(self, *arguments):
        """Freezes `self.data` by copy into `self.store`, or what is given; gives the id."""
        arguments = arguments or (self.data, "--method", "copy", "--store", self.store)
        result = qzfi("freeze", *arguments)
        self.assertEqual(result.code, 0, str(result))
        identity = result.out.splitlines()[-1]
        self.assertRegex(identity, f"^{IMAGE_ID}$")
        return identity

    def json(self, *arguments, schema=None, **options):
        """Runs a subcommand with --json; gives the document, which its schema describes."""
        document = json.loads(self.succeed(*arguments, "--json", **options))
        self.check_schema(document, schema or arguments[0])
        return document

    def check_schema(self, document, name):
        schemas = all_schemas()
        schema = schemas[name + ".json"]
        jsonschema.Draft7Validator.check_schema(schema)
        jsonschema.Draft7Validator(schema, resolver=jsonschema.RefResolver("", schema, schemas)).validate(document)

    def stable(self, text):
        """The text with what differs from run to run replaced: ids, local times, folders."""
        text = re.sub(IMAGE_ID, "ID", text)
        text = re.sub(LOCAL_TIME, "TIME", text)
        return text.replace(str(self.folder), "FOLDER").replace(str(root()), "ROOT")

    def listed(self, store=None):
        """The ids of the images of the test's store, or of another."""
        return [image["id"] for image in self.json("list", "--store", store or self.store)["images"]]


def main():
    """Runs the tests of the file; exit code 77 when every one was skipped."""
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
    _own_mounts()
    program = unittest.main(exit=False, verbosity=2)
    for mount_point in _mounted:
        run(["umount", "--lazy", mount_point])
    result = program.result
    if not result.wasSuccessful():
        sys.exit(1)
    sys.exit(SKIPPED if result.testsRun > 0 and len(result.skipped) >= result.testsRun else 0)
