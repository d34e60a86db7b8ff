"""A simulated phone: kvosim and kvoxd in private directories."""

from __future__ import annotations

import os
import pathlib
import shutil
import subprocess
import tempfile
import time
from types import TracebackType
from typing import Optional, Union

from kvox import _kvox
from kvox._device import Device

_VARIABLES = ("KVOX_DEV_DIR", "KVOX_RUNTIME_DIR", "KVOX_WAKE_LOCK_DIR")
_START_LIMIT = 20.0  # seconds


def _find(program: str) -> str:
    """Beside this package's build, or installed."""
    built = pathlib.Path(__file__).resolve().parents[2] / "bin" / program
    path = str(built) if built.exists() else shutil.which(program, path=_search_path())
    if path is None:
        raise FileNotFoundError(f"there is no {program}; install the package {program}")
    return path


def _search_path() -> str:
    return os.environ.get("PATH", "") + ":/usr/sbin:/usr/bin"


class Simulator:
    """Starts kvosim and kvoxd; a context manager. One at a time in a process.

    `scenario` is the path of a scenario, or its text in TOML; without it there is a small phone.
    While it runs, kvox.connect() reaches it; so do programs that this process starts.
    """

    def __init__(self, scenario: Union[str, pathlib.Path, None] = None) -> None:
        self._scenario = scenario
        self._directory: Optional[tempfile.TemporaryDirectory[str]] = None
        self._processes: list[subprocess.Popen[bytes]] = []
        self._before: dict[str, Optional[str]] = {}

    @property
    def directory(self) -> pathlib.Path:
        """Where everything is: dev/, run/, kvosim.log, kvoxd.log."""
        assert self._directory is not None, "the simulator is not running"
        return pathlib.Path(self._directory.name)

    def start(self) -> "Simulator":
        """Starts both, and waits until the daemon has the simulator's buffers."""
        if os.environ.get("_KVOX_SIMULATOR"):
            raise _kvox.Error("a simulator is running in this process already; stop it first")
        self._directory = tempfile.TemporaryDirectory(prefix="kvox-")
        try:
            self._start_programs()
            self._wait()
        except BaseException:
            self.stop()
            raise
        return self

    def connect(self, timeout: float = 300.0) -> Device:
        """A connection to the simulated phone's daemon."""
        return Device(timeout)

    def restart_daemon(self) -> None:
        """Kills kvoxd, and starts another one."""
        self._processes[1].kill()
        self._processes[1].wait()
        self._processes[1] = self._start("kvoxd", [])
        self._wait()

    def fault(self, line: str) -> None:
        """Injects a fault into the simulated co-processor: "restart gap=0.5", "packet-drop".

        docs/simulator.md lists them. Raises kvox.Error when the simulator refuses it.
        """
        command = [_find("kvosim"), "ctl", "fault", *line.split()]
        ran = subprocess.run(command, capture_output=True, text=True, check=False)
        if ran.returncode != 0:
            raise _kvox.Error(ran.stderr.strip() or ran.stdout.strip())

    def log(self, program: str = "kvoxd") -> str:
        """What kvosim or kvoxd has logged."""
        return (self.directory / f"{program}.log").read_text(errors="replace")

    def stop(self) -> None:
        """Ends both, and removes the directories."""
        for process in reversed(self._processes):
            process.kill()
            process.wait()
        self._processes.clear()
        for name, value in self._before.items():
            if value is None:
                os.environ.pop(name, None)
            else:
                os.environ[name] = value
        self._before.clear()
        if self._directory is not None:
            self._directory.cleanup()
            self._directory = None

    def _start_programs(self) -> None:
        for name, folder in zip(_VARIABLES, ("dev", "run", "power")):
            path = self.directory / folder
            path.mkdir(mode=0o750)
            self._set(name, str(path))
        self._set("_KVOX_SIMULATOR", "1")
        arguments = []
        if self._scenario is not None:
            path = pathlib.Path(self._scenario) if "\n" not in str(self._scenario) else None
            if path is None:
                path = self.directory / "scenario.toml"
                path.write_text(str(self._scenario))
            arguments = ["--scenario", str(path.resolve())]
        self._processes.append(self._start("kvosim", arguments))
        self._processes.append(self._start("kvoxd", []))

    def _set(self, name: str, value: str) -> None:
        self._before[name] = os.environ.get(name)
        os.environ[name] = value

    def _start(self, program: str, arguments: list[str]) -> "subprocess.Popen[bytes]":
        with open(self.directory / f"{program}.log", "ab") as log:
            return subprocess.Popen(
                [_find(program), *arguments],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                start_new_session=True,  # Ctrl-C ends the test, which ends them
            )

    def _wait(self) -> None:
        deadline = time.monotonic() + _START_LIMIT
        while True:
            for name, process in zip(("kvosim", "kvoxd"), self._processes):
                if process.poll() is not None:
                    raise _kvox.Error(f"{name} has ended: {self.log(name).strip()[-500:]}")
            try:
                if any(buffer.name.startswith("tapout") for buffer in Device(1.0).buffers):
                    return
            except _kvox.Error:
                if time.monotonic() > deadline:
                    raise
            if time.monotonic() > deadline:
                raise _kvox.Error(f"kvoxd has found no buffers: {self.log()[-500:]}")
            time.sleep(0.02)

    def __enter__(self) -> "Simulator":
        return self.start()

    def __exit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.stop()
