"""The one table that a run prints."""

from dataclasses import dataclass

from .paired import Comparison, Run

MISSED = "missed"


@dataclass(frozen=True)
class Row:
    """One comparison. A goal is the largest ratio that is good enough, or None."""

    name: str
    peer: str
    result: Comparison
    goal: float | None = None

    @staticmethod
    def of_ratio(name: str, peer: str, ratio: float, goal: float | None = None) -> "Row":
        """A row without times of its own."""
        nothing = Run(float("nan"), float("nan"))
        return Row(name, peer, Comparison(nothing, nothing, ratio), goal)

    @property
    def is_missed(self) -> bool:
        """Whether the goal was missed."""
        return self.goal is not None and self.result.ratio > self.goal

    def cells(self) -> list[str]:
        """The row's texts."""
        verdict = "" if self.goal is None else f"≤ {self.goal:.2f} {MISSED if self.is_missed else 'met'}"
        return [self.name, self.peer, *(_figures(self.result.ours)), *(_figures(self.result.theirs)),
                f"{self.result.ratio:.2f}", verdict]


def _figures(run: Run) -> list[str]:
    seconds = "" if run.wall != run.wall else f"{run.wall:.3f}"
    return [seconds, "" if run.peak_mib != run.peak_mib else f"{run.peak_mib:.1f}"]


HEAD = ["what", "beside", "ours s", "MiB", "theirs s", "MiB", "ratio", "goal"]


def as_markdown(rows: list[Row]) -> str:
    """The rows as a table in Markdown."""
    lines = [HEAD, ["---"] * len(HEAD), *(row.cells() for row in rows)]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)
