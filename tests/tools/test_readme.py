"""The first session that README.md shows, typed to the letter: every command works and says what is printed there."""
import re
import subprocess
import unittest

import support

MARK = "-- end of command --"


def session():
    """Commands and what the README prints after each."""
    text = (support.SOURCE / "README.md").read_text(encoding="utf-8")
    block = re.search(r"^## A first session\n.*?^```console\n(.*?)^```$", text, re.M | re.S).group(1)
    steps = []
    for line in block.splitlines():
        if line.startswith("$ "):
            steps.append((line[2:], []))
        else:
            steps[-1][1].append(line)
    return [(command, "\n".join(output)) for command, output in steps]


def general(text, home, top):
    """What differs from session to session is replaced: places, times, ids, sizes, and with them the columns."""
    text = text.replace(f"{top}/", "TOP/").replace("/home/you/qzfi/", "TOP/")
    text = text.replace(f"{home}/", "HOME/").replace("/home/you/", "HOME/")
    text = re.sub(support.IMAGE_ID, "ID", text)
    text = re.sub(support.LOCAL_TIME, "TIME", text)
    text = re.sub(r"/\S* \((ext4|tmpfs|overlay)\)", "FILE SYSTEM", text)
    text = re.sub(r"/\S*\.qzfi\b", "STORE", text)
    text = re.sub(r"\b[0-9.:]+ (ms|s|min)(?!\S)|\b[0-9.]+ [KMGT]iB\b", "ESTIMATE", text)
    lines = (re.sub(r" {2,}", "  ", line).rstrip() for line in text.splitlines())
    return "\n".join(lines)


class Readme(unittest.TestCase):
    def test_first_session(self):
        steps = session()
        self.assertGreater(len(steps), 8)
        home, top = support.scratch() / "home", support.scratch() / "qzfi"
        home.mkdir()
        (top / "build").mkdir(parents=True)
        (top / "build" / "release").symlink_to(support.BUILD)
        # A shell reads the commands one by one, as from a person.
        script = "".join(f"{command}\nstatus=$?; echo '{MARK}' $status\n" for command, _ in steps)
        done = subprocess.run(["bash", "--norc"], input=script, cwd=top, capture_output=True, encoding="utf-8",
                              env=support.environment(HOME=str(home)), timeout=support.PATIENCE)
        parts = re.split(rf"{MARK} ([0-9]+)\n", done.stdout)
        outputs, codes = parts[0:-1:2], parts[1::2]
        self.assertEqual(len(outputs), len(steps), done.stdout + done.stderr)
        for (command, expected), output, code in zip(steps, outputs, codes):
            with self.subTest(command):
                self.assertEqual(code, "0", done.stderr)
                self.assertEqual(general(output, home, top), general(expected, home, top))

    def test_every_file_that_is_named_exists(self):
        text = (support.SOURCE / "README.md").read_text(encoding="utf-8")
        named = re.findall(r"(?<![\w/.-])((?:api|bench|cmake|common|docs|err|examples|fi|fuzz|include|log|msgcat|providers"
                           r"|resources|scripts|tests|tools|util)/[\w./-]*)", text)
        self.assertGreater(len(named), 20)
        missing = sorted({name for name in named
                          if "NAME" not in name and not (support.SOURCE / name.rstrip(".")).exists()})
        self.assertEqual(missing, [])


if __name__ == "__main__":
    support.main()
