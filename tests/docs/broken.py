"""A guide that is wrong has to fail, in whichever way it is wrong."""

import os
import pathlib
import tempfile

import snippets

GOOD = """
<!-- figures: other.md -->
It takes 1.5 s.

<!-- file: lamp.txt -->
```ini
on
off
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
```

<!-- terminal: first, other numbers -->
```console
$ echo 1 of 12
7 of 9
```

<!-- terminal: second, goes on -->
```console
$ sh -c 'echo early; echo late; exec cat'
```

<!-- terminal: second, among others -->
```console
late
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
"""
# What is right, what is wrong instead, and what is said about that.
WRONG = [
    ("off\n$ echo", "$ echo", "line 11: .*cat lamp.txt"),
    ("process … here", "process … there", "process"),
    ("1\n…\n5", "1\n…\n6", "seq 5"),
    ("$ echo $?\n1\n", "", "status 1 of: false"),
    ("7 of", "7 or", "echo 1 of 12"),
    (", other numbers", "", "7 of 9"),
    (", among others", ", among", "nobody knows"),
    ("```ini\non\noff\n```\n", "```ini\non\noff\n", "does not end|nobody knows"),
    ("return x", "return one", "does not compile by itself"),
    ("ExecStart=", "ExecStrat=", "starts nothing"),
    *([("ExecStart=", "Restrat=always\nExecStart=", "systemd-analyze")]
      if snippets.shutil.which("systemd-analyze") else []),
    ("takes 1.5", "takes 1.6", "not in other.md: 1.6"),
]
# Likewise, where a reader would wait for ever.
STUCK = [
    ("<!-- terminal: second, goes on -->", "<!-- terminal: second -->", "an end of"),
    (", among others", "", "what the command"),
    ("late\n^C", "later\n^C", "what the command that runs"),
]

with tempfile.TemporaryDirectory() as folder:
    home = pathlib.Path(folder)
    (home / "other.md").write_text("1.5 s\n")
    (home / "pkg-config").symlink_to("/bin/true")
    environment = {"PATH": f"{home}:{os.environ['PATH']}", "HOME": folder, "LC_ALL": "C.UTF-8",
                   "CXX": "c++"}

    def failure(text):
        """What is wrong with a page of that text, or nothing."""
        (home / "page.md").write_text(text)
        guide = snippets.Guide(home / "page.md", home, environment)
        try:
            guide.run()
            return ""
        except snippets.Failure as failed:
            return str(failed)
        finally:
            guide.close()

    assert failure(GOOD) == "", failure(GOOD)
    for right, wrong, why in WRONG + STUCK:
        snippets.LIMIT = 2 if (right, wrong, why) in STUCK else 30
        said = failure(GOOD.replace(right, wrong, 1))
        assert right in GOOD and snippets.re.search(why, said, snippets.re.S), (wrong, why, said)
