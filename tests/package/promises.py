"""The libraries start no thread, open no file, read no environment and handle no signal."""

import re
import shutil
import subprocess

from package import CXX, HERE, LIB, PREFIX, WORK, check, flags, run, start

# Functions of the C and C++ libraries that would break a promise. Those of the calendar read TZ and
# the time zone's file when they are first used, in UTC too.
FORBIDDEN = re.compile(
    r"getenv|secure_getenv|_*environ|setenv|putenv|unsetenv"
    r"|open(at)?(64)?|creat(64)?|fopen(64)?|freopen(64)?|opendir|mkos?temp|tmpfile"
    r"|.*basic_filebuf.*|.*basic_[io]?fstream.*"
    r"|pthread_create|thrd_create|_ZNSt6thread.*|fork|vfork|clone|system|popen|posix_spawnp?|exec.*"
    r"|signal|sigaction|sigprocmask|pthread_sigmask|pthread_kill|raise|kill|sigaltstack"
    r"|gmtime(_r)?|localtime(_r)?|mktime|timegm|strftime(_l)?|tzset|ctime(_r)?"
    r"|setlocale|newlocale|syslog|openlog|f?printf|puts|putchar|perror|_ZSt4(cout|cerr|clog)")


def unfortified(function):
    """The function that the C library's checked variant stands for."""
    return re.sub(r"^__(.*)_(chk|2)$", r"\1", function)


def imports():
    for name in ("TovikService", "Tovik", "Kelvo"):
        lines = run(["nm", "-D", "--undefined-only", PREFIX / LIB / f"lib{name}.so"]).splitlines()
        used = {unfortified(line.split()[-1].split("@")[0]) for line in lines}
        check(len(used) > 10, f"lib{name} uses {used}")
        broken = sorted(filter(FORBIDDEN.fullmatch, used))
        check(not broken, f"lib{name} uses {broken}")


def build_application():
    program = WORK / "quiet"
    run([CXX, "-std=c++17", HERE / "quiet.cpp", "-o", program,
         *flags(PREFIX, "--cflags", "--libs")])
    return program


def calls(program):
    """What the application does by name, to processes and with signals between its two marks."""
    record = WORK / "quiet.trace"
    done = start(shutil.which("strace"), "-f", "-o", str(record), "-e",
                 "trace=%file,%process,%signal", str(program), libraries=[PREFIX / LIB])
    check(done.returncode == 0, f"traced: {done}")
    lines = record.read_text().splitlines()
    begin = next(i for i, line in enumerate(lines) if "/tovik-begin" in line)
    end = next(i for i, line in enumerate(lines) if "/tovik-end" in line)
    return lines[begin + 1:end]


def can_trace():
    return shutil.which("strace") is not None and subprocess.run(
        ["strace", "-o", "/dev/null", "true"], capture_output=True).returncode == 0


application = build_application()
finished = start(application, libraries=[PREFIX / LIB])
check(finished.returncode == 0, f"{finished}")
check("Server(): socket fd = " in finished.stderr, f"nothing was logged: {finished.stderr}")
if can_trace():
    seen = calls(application)
    check(not seen, "\n".join(["between the marks:", *seen]))
imports()
