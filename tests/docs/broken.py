"""A guide that is wrong has to fail, in whichever way it is wrong."""

import pathlib
import tempfile
import unittest

import snippets

GOOD = """# A Good Page

Prose. <!-- no mark -->

<!-- figures: other.md -->
It takes 1.5 s, or 20 of something.

<!-- names: lamp -->

<!-- file: lamp.txt -->
```ini
on
off
```

<!-- terminal: second, among others -->
```console
$ printf 'x\\nlamp\\ny\\n'; echo lamp
lamp
lamp
```

```console
$ cat lamp.txt
on
off
$ echo "process $$ is here"; seq 5
process … here
1
…
5
$ false
$ echo $?
1
$ for i in 1 2; do
>   echo $i
> done
1
2
```

<!-- terminal: second, goes on -->
```console
$ cat
```

<!-- typed: second -->
```json
{"on":true}
```

<!-- terminal: second -->
```console
{"on":true}
^C
```

<!-- file: alone.h -->
```cpp
inline int one() { return [](int x) { return x; }(1); }
```

<!-- file: lamp.service -->
```ini
[Service]
ExecStart=/no/such/program
```

<!-- terminal: first, if false -->
```console
$ anything
```
"""


class Guides(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.home = pathlib.Path(folder.name)
        (self.home / "other.md").write_text("# Other\n\n1.5 s\n")
        pkg_config = self.home / "pkg-config"
        pkg_config.write_text("#!/bin/sh\n")
        pkg_config.chmod(0o755)
        self.environment = {"PATH": f"{self.home}:/usr/bin:/bin", "HOME": folder.name,
                            "LC_ALL": "C.UTF-8", "CXX": "c++"}
        limit, snippets.LIMIT = snippets.LIMIT, 10
        self.addCleanup(setattr, snippets, "LIMIT", limit)

    def run_page(self, text):
        page = self.home / "page.md"
        page.write_text(text)
        guide = snippets.Guide(page, self.home, self.environment)
        try:
            guide.run()
        finally:
            guide.close()

    def fails(self, good, bad, why):
        self.assertIn(good, GOOD)
        with self.assertRaisesRegex(snippets.Failure, why):
            self.run_page(GOOD.replace(good, bad, 1))

    def test_that_are_right_pass(self):
        self.run_page(GOOD)

    def test_with_other_output_fail(self):
        self.fails("on\noff\n$ echo", "on\n$ echo", "line 23: .*cat lamp.txt")
        self.fails("on\noff\n$ echo", "on\noff\nx\n$ echo", "cat lamp.txt")
        self.fails("process … here", "process … there", "process")
        self.fails("1\n…\n5", "1\n…\n6", "seq 5")
        self.fails("lamp\nlamp\n", "lamp\nlamp\nlamp\n", "printf")
        self.fails(", among others", "", "printf")

    def test_whose_commands_fail_fail(self):
        self.fails("$ echo $?\n1\n", "", "status 1 of: false")
        self.fails("$ echo $?\n1\n", "$ echo $?\n0\n", "echo")

    def test_whose_commands_do_not_end_or_do_not_say_what_they_should_fail(self):
        snippets.LIMIT = 2
        self.fails("<!-- terminal: second, goes on -->", "<!-- terminal: second -->", "an end of")
        self.fails('{"on":true}\n^C', '{"on":false}\n^C', "what the command that runs")

    def test_with_blocks_that_nobody_runs_fail(self):
        self.fails("<!-- terminal: second -->", "<!-- terminal: second, if -->", "nobody knows")
        self.fails("<!-- typed: second -->\n", "", "nobody knows")
        self.fails("<!-- file: lamp.txt -->", "<!-- fiel: lamp.txt -->", "nobody knows")
        self.fails("```ini\non\noff\n```\n", "```ini\non\noff\n", "does not end|nobody knows")

    def test_whose_files_are_wrong_fail(self):
        self.fails("return x", "return one", "does not compile by itself")
        self.fails("ExecStart=", "ExecStrat=", "starts nothing")
        if snippets.shutil.which("systemd-analyze"):
            self.fails("ExecStart=", "Restrat=always\nExecStart=", "systemd-analyze")

    def test_with_figures_of_their_own_fail(self):
        self.fails("takes 1.5", "takes 1.6", "not in other.md: 1.6")


if __name__ == "__main__":
    unittest.main()
