"""The service's log records in the format of the board's tracking configuration."""

import re
from dataclasses import dataclass

from .names import LOG_FILE

# The message comes last, because it may contain separators and line ends.
TRACKING_CONFIGURATION_TEXT = f"""<?xml version="1.0" encoding="UTF-8"?>
<log4j:configuration xmlns:log4j="http://jakarta.apache.org/log4j/">
  <appender name="records" class="org.apache.log4j.FileAppender">
    <param name="File" value="{LOG_FILE}"/>
    <param name="Append" value="true"/>
    <layout class="org.apache.log4j.PatternLayout">
      <param name="ConversionPattern" value="%d{{HH:mm:ss.SSS}}|%p|%c|%F|%C::%M|%m%n"/>
    </layout>
  </appender>
  <root>
    <level value="info"/>
    <appender-ref ref="records"/>
  </root>
</log4j:configuration>
"""

_RECORD_START = re.compile(
    r"^(\d\d:\d\d:\d\d\.\d{3})\|(DEBUG|INFO|WARN|ERROR|FATAL)\|([^|\n]*)\|([^|\n]*)\|([^|\n]*)\|", re.MULTILINE)


@dataclass(frozen=True)
class LogRecord:
    """A log record: local time of day, level, channel, source name, "Class::function", message."""

    time: str
    level: str
    channel: str
    source: str
    function: str
    message: str

    def __str__(self) -> str:
        return f"{self.time} {self.level:5} {self.channel:11} {self.message}   [{self.source}, {self.function}]"


def parse_records(text: str) -> list[LogRecord]:
    """All complete records of a log; a message may have several lines."""
    text = text[:text.rfind("\n") + 1]
    starts = list(_RECORD_START.finditer(text))
    ends = [match.start() for match in starts[1:]] + [len(text)]
    return [LogRecord(*match.groups(), text[match.end():end].removesuffix("\n"))
            for match, end in zip(starts, ends)]
