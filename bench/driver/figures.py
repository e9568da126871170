"""Medians, quantiles, spreads."""

import statistics


def quantile(ordered, q):
    return ordered[min(len(ordered) - 1, int(q * len(ordered)))]


class Series:
    """One figure, measured once a round."""

    def __init__(self):
        self.values = []

    def add(self, value):
        self.values.append(value)

    def median(self):
        return statistics.median(self.values)

    def summary(self):
        ordered = sorted(self.values)
        return {"median": self.median(), "q1": quantile(ordered, 0.25),
                "q3": quantile(ordered, 0.75), "rounds": len(ordered)}


class Latencies:
    """Samples of many rounds: quantiles of all of them, and the median of each round."""

    def __init__(self):
        self.p50 = Series()
        self._all = []

    def add(self, samples):
        self.p50.add(statistics.median(samples))
        self._all.extend(samples)

    def summary(self):
        ordered = sorted(self._all)
        return {"p50": self.p50.summary(), "p99": quantile(ordered, 0.99),
                "p99.9": quantile(ordered, 0.999), "samples": len(ordered)}
