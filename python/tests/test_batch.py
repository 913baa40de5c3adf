"""quarn.batch on a two-worker LocalCluster: every good stack as in a serial loop, a corrupt one a row
with its error, nothing lost, nothing partial written."""
import json
import os

import numpy as np
import pytest
import tifffile

from conftest import psi_stack

import quarn


@pytest.fixture()
def stacks(tmp_path):
    folder = tmp_path / "line"
    folder.mkdir()
    for i, gain in enumerate((0.0, 0.01, 0.02, 0.03, 0.04)):
        stack, _ = psi_stack(13, rows=32, cols=40, gain_error=gain)
        # s0 .. s2 are mapped where they lie; s3 (big-endian) and s4 (compressed) cannot be and are read.
        options = {3: {"byteorder": ">"}, 4: {"compression": "zlib"}}.get(i, {})
        tifffile.imwrite(folder / f"s{i}.tif", stack, **options)
    # Truncated in the middle of its pixel data.
    data = (folder / "s2.tif").read_bytes()
    (folder / "s5.tif").write_bytes(data[: len(data) // 3])
    # No fringes at all: a run without a valid pixel writes nothing.
    tifffile.imwrite(folder / "s6.tif", np.full((13, 32, 40), 100, np.uint16))
    return folder


def test_batch_on_two_workers_equals_the_serial_loop(stacks, tmp_path):
    rows = quarn.batch.run("psi", str(stacks / "*.tif"), out_dir=tmp_path / "maps", n_workers=2, max_value=4095)
    names = [row["name"] for row in rows]
    assert names == [f"s{i}.tif" for i in range(7)]

    serial = tmp_path / "serial"
    for row in rows:
        path = str(stacks / row["name"])
        expected = quarn.batch.process_file("psi", path, out_dir=serial, max_value=4095)
        assert row["status"] == expected["status"], row["message"]
        if row["status"] != "ok":
            continue
        assert row["valid_fraction"] == expected["valid_fraction"]
        stem = row["name"][:-4]
        for key in ("phase", "modulation"):
            np.testing.assert_array_equal(tifffile.imread(tmp_path / "maps" / f"{stem}.{key}.tif"),
                                          tifffile.imread(serial / f"{stem}.{key}.tif"))
        # Whichever way the file was read, the map is that of the stack in memory.
        stack = tifffile.imread(stacks / row["name"])
        np.testing.assert_array_equal(tifffile.imread(tmp_path / "maps" / f"{stem}.phase.tif"),
                                      quarn.psi(stack, max_value=4095)["phase"].astype(np.float32))
        record = json.loads((tmp_path / "maps" / f"{stem}.psi.json").read_text())
        assert record["status"] == "ok" and record["algorithm"] == "13"

    by_name = {row["name"]: row for row in rows}
    assert [by_name[f"s{i}.tif"]["status"] for i in range(5)] == ["ok"] * 5
    assert by_name["s5.tif"]["status"] == "error" and by_name["s5.tif"]["message"].startswith("s5.tif: ")
    assert by_name["s6.tif"]["status"] == "no result"
    assert "no valid pixel in s6.tif" in by_name["s6.tif"]["message"]
    # Outputs only for the good stacks, and no staged leftovers.
    written = sorted(os.listdir(tmp_path / "maps"))
    assert written == sorted(f"s{i}.{k}" for i in range(5) for k in ("phase.tif", "modulation.tif", "psi.json"))
    assert "s5.tif" in quarn.batch.format_table(rows)


def test_quadrants_batch_reads_pages_or_one_file_per_map(tmp_path):
    """Quadrant maps as pages of one file (2 or 4) or one file per map: the combined map is the
    surface the carrier error was added to and taken from, as quarn.quadrants makes it in memory."""
    n = 24
    r, c = np.mgrid[0:n, 0:n].astype(np.float32)
    surface = 5.0 * r + 2.0 * c
    error = np.float32(0.1) * (c - 12) * (r - 12)  # changes sign between opposite quadrants
    q1, q3 = surface + error, surface - error
    q2, q4 = surface + 0.5 * error, surface - 0.5 * error
    q1[0, 0] = np.nan
    tifffile.imwrite(tmp_path / "two.tif", np.stack([q1, q3]), photometric="minisblack")
    tifffile.imwrite(tmp_path / "four.tif", np.stack([q1, q2, q3, q4]), photometric="minisblack")
    tifffile.imwrite(tmp_path / "three.tif", np.stack([q1, q2, q3]), photometric="minisblack")
    tifffile.imwrite(tmp_path / "m_q1.tif", q1)
    tifffile.imwrite(tmp_path / "m_q3.tif", q3)
    items = [tmp_path / "two.tif", tmp_path / "four.tif", tmp_path / "three.tif",
             {"q1": tmp_path / "m_q1.tif", "q3": tmp_path / "m_q3.tif"}]
    rows = quarn.batch.run("quadrants", items, out_dir=tmp_path / "out", n_workers=2, tolerance=5.0)
    assert [row["status"] for row in rows] == ["ok", "ok", "error", "ok"], rows
    assert rows[2]["message"] == ("three.tif: three.tif has 3 pages; a quadrants measurement is 2 maps (Q1, Q3) "
                                  "or 4 (Q1, Q2, Q3, Q4), one per page")
    assert [row["quadrants"] for row in rows if row["status"] == "ok"] == [2, 4, 2]
    for stem, maps in (("two", (q1, q3)), ("four", (q1, q3, q2, q4)), ("m_q1", (q1, q3))):
        final = tifffile.imread(tmp_path / "out" / f"{stem}.final.tif")
        np.testing.assert_array_equal(final, quarn.quadrants(*maps, tolerance=5.0)["final"].astype(np.float32))
        # The mean cancels the error to float32 rounding of values up to ~160 (a few 1e-5).
        np.testing.assert_allclose(final[1:], surface[1:], atol=1e-4)
        assert np.isnan(final[0, 0])
