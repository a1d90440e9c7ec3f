"""Reading and writing photon and event files from Python."""

from __future__ import annotations

import errno
import json
import os
import resource
import signal
import struct
import subprocess
import sys
import unittest

import numpy as np

import kovra
from kovra_testing import (SIMULATE, TempDirTest, block, brantel_message, kovra_file, photon_bytes, run_brantel,
                           simulate, trigger_bytes)

PHOTONS = [(1, -2, 3), (65536, 7, 3), (-2**31, 2**31 - 1, 2**62)]
EVENT_RECORD = struct.pack("<iiqQd", 5, -6, 70, 3, 1.25e-9)


class GoldenBytesTest(TempDirTest):
    def test_hand_built_files_read_as_expected_and_write_back_the_same_bytes(self) -> None:
        event = (5, -6, 70, 3, 1.25e-9)
        cases = [  # (name, blocks, reader, writer, records, triggers): trigger lists empty, filled and absent
            ("a.kovraphot", [block("photons", photon_bytes(*PHOTONS)), block("extTrigs", b"")],
             kovra.read_photons, kovra.write_photons, PHOTONS, []),
            ("b.kovraphot", [block("photons", photon_bytes(*PHOTONS))], kovra.read_photons, kovra.write_photons,
             PHOTONS, None),
            ("a.kovraevent", [block("events", EVENT_RECORD * 2), block("extTrigs", trigger_bytes(-1, 2**63 - 1))],
             kovra.read_events, kovra.write_events, [event, event], [-1, 2**63 - 1]),
            ("b.kovraevent", [block("events", EVENT_RECORD)], kovra.read_events, kovra.write_events, [event], None),
        ]
        for name, blocks, read, write, records, triggers in cases:
            with self.subTest(name):
                content = kovra_file(2 if read is kovra.read_photons else 3, *blocks)
                data = read(self.write_bytes(name, content))
                self.assertEqual([tuple(r) for r in data[0].tolist()], records)
                self.assertEqual(None if data.triggers is None else data.triggers.tolist(), triggers)
                write(self.dir / f"copy{name}", *data)
                self.assertEqual((self.dir / f"copy{name}").read_bytes(), content)

    def test_the_later_of_two_blocks_is_the_one_read(self) -> None:
        content = kovra_file(2, block("photons", photon_bytes(PHOTONS[0])), block("extTrigs", trigger_bytes(1)),
                             block("photons", photon_bytes(*PHOTONS[1:])), block("extTrigs", trigger_bytes(2, 3)))
        photons, triggers = kovra.read_photons(self.write_bytes("a.kovraphot", content))
        self.assertEqual([tuple(p) for p in photons.tolist()], PHOTONS[1:])
        self.assertEqual(triggers.tolist(), [2, 3])

    def test_files_of_the_tools_are_mapped_not_copied_and_come_back_byte_for_byte(self) -> None:
        photon_file = simulate(self.dir / "s.kovraphot", "--duration", "1e-3", "--triggers", "1e4", "--seed", "5")
        event_file = self.dir / "s.kovraevent"
        self.assertEqual(run_brantel("-s", "3", "-t", "2e-7", "-i", str(photon_file), "-o", str(event_file))
                         .returncode, 0)
        for path, read, write in ((photon_file, kovra.read_photons, kovra.write_photons),
                                  (event_file, kovra.read_events, kovra.write_events)):
            with self.subTest(path.name):
                records, triggers = read(path)
                self.assertGreater(len(records), 0)
                triggers_at = 64 + records.itemsize * len(records) + 16
                for array, offset in ((records, 64), (triggers, triggers_at)):
                    self.assertIsInstance(array, np.memmap)
                    self.assertEqual(array.offset, offset)
                    self.assertEqual(os.path.realpath(array.filename), os.path.realpath(path))
                    self.assertFalse(array.flags.writeable)
                self.assertEqual(triggers_at + 8 * len(triggers), path.stat().st_size)
                write(self.dir / f"copy{path.suffix}", records, triggers)
                self.assertEqual((self.dir / f"copy{path.suffix}").read_bytes(), path.read_bytes())


MALFORMED = [
    # (what, reader, bytes, message): a few of the readers' messages (the library's own tests have every one), each
    # raised as ValueError with the tool's words; kovra_brantel is run on the photon files for its own
    ("empty", kovra.read_photons, b"", "Read Error!"),
    ("not KOVRA", kovra.read_photons, b"KOVRB" + kovra_file(2)[5:], "Not a valid KOVRA file!"),
    ("event file", kovra.read_photons, kovra_file(3, block("events", b"")), "File has wrong type!"),
    ("partial trigger", kovra.read_photons, kovra_file(2, block("photons", b""), block("extTrigs", b"\0" * 9)),
     "File contains partial external triggers!"),
    ("partial event", kovra.read_events, kovra_file(3, block("events", b"\0" * 33)), "File contains partial events!"),
    ("no events", kovra.read_events, kovra_file(3), "File does not contain event data!"),
    ("missing", kovra.read_photons, None, 'file "{}" could not be opened!'),
]


class MalformedFileTest(TempDirTest):
    def test_every_malformed_file_raises_the_tools_message(self) -> None:
        for what, read, content, message in MALFORMED:
            with self.subTest(what):
                path = self.dir / "none.kovraphot" if content is None else self.write_bytes("bad.kovraphot", content)
                message = message.format(path)
                with self.assertRaises(ValueError) as raised:
                    read(path)
                self.assertEqual(str(raised.exception), message)
                if read is kovra.read_photons:
                    output = str(self.dir / "o.kovraevent")
                    completed = run_brantel("-s", "1", "-t", "1e-7", "-i", str(path), "-o", output)
                    self.assertEqual(brantel_message(completed), message)


class WriteArgumentsTest(TempDirTest):
    def test_fields_are_converted_only_where_no_value_changes(self) -> None:
        narrow = np.array([(1, 2, 3)], dtype=[("toa", "<i4"), ("y", ">i2"), ("x", "u2")])
        wide = np.array([(-2**31, 2**31 - 1, 3)], dtype=[("x", "<i8"), ("y", "<u8"), ("toa", "<i8")])
        for photons, expected in ((narrow, (3, 2, 1)), (wide, (-2**31, 2**31 - 1, 3))):  # the second replaces
            kovra.write_photons(self.dir / "p.kovraphot", photons)
            self.assertEqual(kovra.read_photons(self.dir / "p.kovraphot").photons.tolist(), [expected])
        refused = [  # (photons, triggers)
            (np.array([(2**31, 2, 3)], dtype=[("x", "<i8"), ("y", "<i4"), ("toa", "<i8")]), None),  # out of range
            (np.array([(1, 2, 3)], dtype=[("x", "<f4"), ("y", "<i4"), ("toa", "<i8")]), None),  # not an integer
            (np.array([(1, 2)], dtype=[("x", "<i4"), ("y", "<i4")]), None),  # a field missing
            (np.zeros((2, 2), dtype=kovra.PHOTON_DTYPE), None),
            (narrow, [0.5]),
        ]
        for photons, triggers in refused:
            with self.subTest(dtype=str(photons.dtype), triggers=triggers), self.assertRaises(TypeError):
                kovra.write_photons(self.dir / "q.kovraphot", photons, triggers)
        # Unlike the tools, the writers make no folders.
        with self.assertRaises(FileNotFoundError):
            kovra.write_photons(self.dir / "missing" / "p.kovraphot", narrow)
        self.assertEqual(sorted(os.listdir(self.dir)), ["p.kovraphot"])

    def test_names_follow_the_tools_extension_rules_and_messages(self) -> None:
        # The tools' own words for a wrong name: kovra_simulate's for photon files, kovra_brantel's for event files
        # (its log line, without the "Exiting..." of a program that stops). Case matters.
        simulated = subprocess.run([SIMULATE, "-o", "x.events"], capture_output=True, text=True, cwd=self.dir)
        photon_message = simulated.stderr.splitlines()[0].removeprefix("kovra_simulate: ").replace("x.events", "{}")
        reconstructed = run_brantel("-s", "1", "-t", "1e-7", "-i", "a.kovraphot", "-o", "x.events")
        event_message = reconstructed.stderr.rsplit(": ", 1)[1].strip().removesuffix(" Exiting...")
        photons = np.array(PHOTONS, dtype=kovra.PHOTON_DTYPE)
        events = np.zeros(1, dtype=kovra.EVENT_DTYPE)
        for write, records, name, message in [
            (kovra.write_photons, photons, "x.kovraevent", photon_message.format(self.dir / "x.kovraevent")),
            (kovra.write_photons, photons, "x.KOVRAPHOT", photon_message.format(self.dir / "x.KOVRAPHOT")),
            (kovra.write_events, events, "x.kovraphot", event_message),
            (kovra.write_events, events, "x.kovraevent.tmp", event_message),
        ]:
            with self.subTest(name=name, writer=write.__name__):
                with self.assertRaises(ValueError) as raised:
                    write(self.dir / name, records)
                self.assertEqual(str(raised.exception), message)
        self.assertEqual(os.listdir(self.dir), [])

    def test_a_write_refused_on_the_way_raises_oserror_and_leaves_the_earlier_file(self) -> None:
        # A full disk, played by a file-size limit of 4 kB in a child process, SIGXFSZ ignored so that the write
        # fails instead. Each write outgrows it in another block: the photons (16 kB), the triggers after ten
        # photons (8 kB), the events (8 kB).
        child = """if True:
            import json, sys
            import numpy as np
            import kovra
            photons = np.zeros(1000, kovra.PHOTON_DTYPE)
            writes = [(kovra.write_photons, "a.kovraphot", photons, None),
                      (kovra.write_photons, "b.kovraphot", photons[:10], np.arange(1000)),
                      (kovra.write_events, "c.kovraevent", np.zeros(200, kovra.EVENT_DTYPE), None)]
            raised = []
            for write, name, records, triggers in writes:
                try:
                    write(name, records, triggers)
                    raised.append(None)
                except OSError as error:
                    raised.append([type(error).__name__, error.errno, error.strerror, error.filename])
            print(json.dumps(raised))
            """

        def limit_file_size() -> None:
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))

        names = ["a.kovraphot", "b.kovraphot", "c.kovraevent"]
        for name in names:
            self.write_bytes(name, b"earlier " + name.encode())
        completed = subprocess.run([sys.executable, "-c", child], cwd=self.dir, preexec_fn=limit_file_size,
                                   capture_output=True, text=True, check=False)
        self.assertEqual((completed.returncode, completed.stderr), (0, ""))
        self.assertEqual(json.loads(completed.stdout), [["OSError", errno.EFBIG, "File too large", name]
                                                        for name in names])
        for name in names:
            self.assertEqual((self.dir / name).read_bytes(), b"earlier " + name.encode())
        self.assertEqual(sorted(os.listdir(self.dir)), names)

    def test_make_photons_takes_columns(self) -> None:
        photons = kovra.make_photons(np.array([1, -2], np.int32), [3, 4], np.array([5, 6], np.int64))
        self.assertEqual(photons.dtype, kovra.PHOTON_DTYPE)
        self.assertEqual(photons.tolist(), [(1, 3, 5), (-2, 4, 6)])
        for columns in (([1], [2, 3], [4]), ([1.5], [2], [4]), ([1], [-1], [2**63])):
            with self.subTest(columns=columns), self.assertRaises(TypeError):
                kovra.make_photons(*columns)


if __name__ == "__main__":
    unittest.main()
