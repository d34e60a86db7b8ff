"""What the author of a processor writes: a test with a simulated phone."""

import numpy as np
import pytest

import kvox


def test_a_second_of_the_microphones_tone_arrives():
    with kvox.Simulator() as phone, phone.connect().record("imic.0") as blocks:
        second = blocks.read(1.0)
    assert second.missing == 0 and second.shape == (48_000, 2)
    left = second.floats()[:, 0]
    assert 20 * np.log10(left.max()) == pytest.approx(-12, abs=0.01)  # dBFS
    assert np.abs(np.fft.rfft(left)).argmax() == 1000  # Hz
