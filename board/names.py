"""Names, paths and numbers that the boards and the service share."""

from enum import IntEnum

SERVICE_NAME = "tavo.SDCard1"
OBJECT_PATH = "/tavo/sdcard"
CARD_INTERFACE = "tavo.SDCard1"
CONTROLLER_INTERFACE = "tavo.SDCardController1"

SERVICE_PROGRAM = "/usr/sbin/sdcardd"
MEDIA_CONFIGURATION = "/etc/tavo/tavo-sdcard.config.xml"
TRACKING_CONFIGURATION = "/etc/tavo/tavo-sdcard.trackconfig.xml"
MOUNT_RESTRICTION = "/opt/tavo/share/tavo-sdcard/preparing/00-restrict-card-mount"
E2FSCK = "/usr/sbin/e2fsck"
FORMAT_SCRIPT = "/opt/tavo/bin/tavo-create-sdcardFS.sh"
BUS_POLICY = "/usr/share/dbus-1/system.d/tavo.SDCard1.conf"
SYSTEM_BUS_SOCKET = "/run/dbus/system_bus_socket"

BOARD_FILES = "/opt/tavo/tavodev"
LED_DIRECTORY = BOARD_FILES + "/mmc1_leds"
EJECT_BUTTON = BOARD_FILES + "/mmc1_eject/value"

MOUNT_POINT = "/media/sdcard"
CARD_DEVICE = "/dev/mmcblk0"
PARTITION_DEVICE = "/dev/mmcblk0p1"

# Exists on boards only: log records, system log, run level, calls of replaced tools.
BOARD_DIRECTORY = "/run/board"
LOG_FILE = BOARD_DIRECTORY + "/records"
SYSTEM_LOG = BOARD_DIRECTORY + "/syslog"
RUN_LEVEL_FILE = BOARD_DIRECTORY + "/runlevel"
TOOL_CALLS_FILE = BOARD_DIRECTORY + "/tool-calls"

# The environment of a program that init starts.
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/"}


class State(IntEnum):
    """The service's State property."""

    UNKNOWN = 0
    NO_CARD = 1
    NOT_MOUNTABLE = 2
    MOUNTED = 3
    UNMOUNTED = 4
    CLOSING_FILES = 5
    MOUNTING = 6
    UNMOUNTING = 7
    CORRUPTED = 8


class Transition(IntEnum):
    """The service's Transition property."""

    NONE = 0
    CARD_INSERTED = 1
    CARD_REMOVED = 2
    EJECT_REQUESTED = 3
    MOUNT_SUCCEEDED = 4
    MOUNT_FAILED = 5
    CARD_CORRUPT = 6
    UNMOUNT_FAILED = 7
    FILES_CLOSED = 8
    TIMED_OUT = 9


class MemState(IntEnum):
    """The service's MemState property: whether there is a usable card, and how full it is."""

    UNKNOWN = 0
    NO_CARD = 1
    NOT_USABLE = 2
    UP_TO_20_PERCENT = 3
    UP_TO_40_PERCENT = 4
    UP_TO_60_PERCENT = 5
    UP_TO_80_PERCENT = 6
    MORE_THAN_80_PERCENT = 7
