#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tunes the gains of a servo and draws what it measured.

    tune_servo.py [--servo N] [--output FILE]

While a servo is traced and idle, it moves about its position. For each combination of gains the
script records that, and compares the root mean square of the following error. It keeps the best
gains, draws the courses of the first, the best and the worst ones, and ends with exit status 1
when the best ones are not better than those that the servo had.
"""

import argparse
import dataclasses
import itertools
import sys

import matplotlib  # type: ignore[import]
import numpy as np

matplotlib.use("Agg")  # No display is needed.

import matplotlib.pyplot as plt  # type: ignore[import]

import jovu

SECONDS = 1.2  # One move there and one back.
#: What the gains that the servo has are multiplied by. The feed-forward stays as it is.
PROPORTIONAL = (0.5, 4, 16, 64)
INTEGRAL = (0.5, 2)
DERIVATIVE = (1, 4, 16)


@dataclasses.dataclass
class Measurement:
    gains: jovu.servo_dc_gains_t
    time: "np.ndarray[tuple[int], np.dtype[np.float64]]"
    commanded: "np.ndarray[tuple[int], np.dtype[np.float64]]"  # mm
    error: "np.ndarray[tuple[int], np.dtype[np.float64]]"  # um, commanded less actual position
    label: str = ""

    @property
    def rms(self) -> float:
        return float(np.sqrt(np.mean(self.error**2)))

    def __str__(self) -> str:
        gains = self.gains
        return f"kp {gains.kp:6g}  ki {gains.ki:6g}  kd {gains.kd:4g}: {self.rms:7.1f} um rms"


def measure(
    client: jovu.Client, device: jovu.Address, servo: int, gains: jovu.servo_dc_gains_t
) -> Measurement:
    config = client.servo_dc_config_get(device, servo)
    config.gains = gains
    client.servo_dc_config_set(device, servo, config)
    trace = client.trace(device, servo, SECONDS)
    trace = trace[trace["time"] < SECONDS]  # On a busy computer it takes longer.
    while client.servo_dc_move_active(device, servo):
        pass  # It returns to where it was.
    units = config.pos_res_eu_per_mm
    error = trace["pos_cmd"].astype(float) - trace["pos"]
    return Measurement(gains, trace["time"], trace["pos_cmd"] / units, error * 1000 / units)


def candidates(gains: jovu.servo_dc_gains_t) -> "list[jovu.servo_dc_gains_t]":
    return [
        dataclasses.replace(gains, kp=gains.kp * p, ki=gains.ki * i, kd=gains.kd * d)
        for p, i, d in itertools.product(PROPORTIONAL, INTEGRAL, DERIVATIVE)
    ]


def draw(shown: "list[Measurement]", title: str, output: str) -> None:
    figure, (course, errors) = plt.subplots(
        2, sharex=True, figsize=(9, 6), height_ratios=(1, 2), layout="constrained"
    )
    figure.suptitle(title)
    for measurement, colour in zip(shown, ("tab:orange", "tab:green", "tab:red")):
        gains = measurement.gains
        label = (
            f"{measurement.label}: kp {gains.kp:g}, ki {gains.ki:g}, kd {gains.kd:g}"
            f" ({measurement.rms:.0f} µm rms)"
        )
        errors.plot(measurement.time, measurement.error, color=colour, label=label, linewidth=1.2)
    course.plot(shown[0].time, shown[0].commanded, color="tab:gray")
    course.set_ylabel("position, mm")
    errors.set_ylabel("following error, µm")
    errors.set_xlabel("time, s")
    for axes in (course, errors):
        axes.grid(alpha=0.3)
    errors.legend(loc="upper center", bbox_to_anchor=(0.5, -0.15))
    figure.savefig(output, dpi=90)


def main() -> int:
    parser = argparse.ArgumentParser(description="Tune the gains of a servo.")
    parser.add_argument("--servo", type=int, default=0, help="number of the servo, default 0")
    parser.add_argument("--output", default="tuning.png", help="the drawing, default tuning.png")
    options = parser.parse_args()
    with jovu.Client() as client:
        device = client.wait_for_device()
        before = client.servo_dc_config_get(device, options.servo)
        best_gains = before.gains
        try:
            first = measure(client, device, options.servo, before.gains)
            print(f"before  {first}")
            measured = [first]
            for gains in candidates(before.gains):
                measured.append(measure(client, device, options.servo, gains))
                print(f"        {measured[-1]}", flush=True)
            best = min(measured, key=lambda measurement: measurement.rms)
            best_gains = best.gains
            print(f"best    {best}")
        finally:
            before.gains = best_gains
            client.servo_dc_config_set(device, options.servo, before)
        worst = max(measured, key=lambda measurement: measurement.rms)
        first.label, best.label = "before", "best"
        worst.label = "worst"
        name = client.servo_dc_name_str_get(device, options.servo)
        draw([first, best, worst], f"Servo {name} of {client.bio_get_serial(device)}", options.output)
    print(f"drawn to {options.output}")
    return 0 if best.rms < first.rms else 1


if __name__ == "__main__":
    sys.exit(main())
