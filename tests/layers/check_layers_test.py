#!/usr/bin/env python3
"""The layer check refuses each kind of include against the direction and
passes a tree that keeps it, on small trees written here."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

CHECK = pathlib.Path(__file__).resolve().parents[2] / "tools" / "check-layers.py"


def check(files):
    with tempfile.TemporaryDirectory() as root:
        for name, text in files.items():
            path = pathlib.Path(root, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        run = subprocess.run([sys.executable, str(CHECK), root], capture_output=True, text=True)
        return run.returncode, run.stderr


class CheckLayers(unittest.TestCase):
    def test_downward_includes_and_public_headers_pass(self):
        code, out = check({
            "io/text_file.h": "",
            "gpudb/lookup.cpp": '#include "io/text_file.h"\n#include "zev/gpu.h"\n',
            "backends/drm/drm_backend.h": '#include "drm_sysfs.h"\n',
            "backends/drm/drm_sysfs.h": '#include "sysinfo/board_model.h"\n',
            "plugin/monitor.cpp": '#include "backends/drm/drm_backend.h"\n',
            "overlay/graphs.cpp": '#include "plugin/gpu_monitor_vorn.h"\n',
            "apps/gpumon/main.cpp": '#include "options.h"\n#include "gpudb/gpu_db.h"\n',
        })
        self.assertEqual((code, out), (0, ""))

    def test_each_fault_is_named_with_its_line(self):
        cases = {
            "upward": ("gpudb/lookup.cpp", '#include <cstdio>\n#include "plugin/gpu_monitor_vorn.h"\n',
                       "gpudb/lookup.cpp:2: includes plugin/gpu_monitor_vorn.h: the gpudb layer "
                       "may not include the core layer above it"),
            "core into overlay": ("plugin/monitor.cpp", '#include "overlay/shader_sources.h"\n',
                                  "the core layer may not include the overlay layer"),
            "back-end into back-end": ("backends/drm/probe.cpp",
                                       '#include "backends/nvidia/nvidia_backend.h"\n',
                                       "the drm back-end may not include another back-end"),
            "core into internals": ("plugin/dispatch.cpp", '#include "backends/drm/drm_sysfs.h"\n',
                                    "only through backends/drm/drm_backend.h"),
            "program into internals": ("bench/bench.cpp", '#include "backends/nvidia/nvml_binding.h"\n',
                                       "only through backends/nvidia/nvidia_backend.h"),
        }
        for case, (name, text, why) in cases.items():
            with self.subTest(case):
                code, out = check({name: text})
                self.assertEqual(code, 1)
                self.assertIn(why, out)


if __name__ == "__main__":
    unittest.main()
