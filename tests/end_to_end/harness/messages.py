"""The tool's texts, as bytes, for exact comparison."""

from __future__ import annotations

NETWORK_ERROR = b"Network error during webservice call\n"
TIMED_OUT = b"Webservice call timed out. (curl call did not)\n"
NOT_PARSED = b"The data returned by the webservice could not be parsed.\n"
REQUEST_FAILED = b"Request failed.\n"
STATUS_FAILED = b"return status failed.\n"
RESPONSE_CODE = b"Server's HTTP response code was 0\n"

NO_RECORDS = "An error occurred: no records returned by the server"
NO_CREDENTIALS = "Required parameter url or login or passwd not present, or missing ws"
BAD_PASSWORD_FILE = "Required parameter passwdfile not valid"

REGISTRY_MISSING = b"Failed to open input file:/etc/qxregistry.cfg\n"
REGISTRY_DEFAULTS = b"/etc/qxregistry.cfg doesn't exist, use the default values\n"
NO_REGISTRY = REGISTRY_MISSING + REGISTRY_DEFAULTS

COMPONENT_TYPES = (
    "Agent",
    "ContentRouter",
    "StoragePoolAuthority",
    "MetabaseEngine",
    "MetabaseServer",
    "Controller",
    "qxwfe",
    "storagepool",
)

ALLOWED_ACTIONS = {
    "Agent": ("register", "configfile", "routingtables", "certificate", "createds"),
    "StoragePoolAuthority": ("configfile",),
    "storagepool": ("discover",),
    "ContentRouter": ("configfile",),
    "": ("createds", "routingtables", "discover"),
}


def completed(action: str) -> bytes:
    """The line of a run that succeeded."""
    return f"Action {action} completed successfully.\n".encode()


def failed(action: str, description: str) -> bytes:
    """The report of a run that failed: the description stands twice."""
    return f"Failed to perform action {action}. Error: {description}{description}\n\n".encode()


def call_failed(action: str, *before: bytes) -> bytes:
    """The report of a failed web-service call behind its own messages."""
    return b"".join(before) + RESPONSE_CODE + failed(action, "WebService call failed")


def error_returned(description: str) -> bytes:
    """The line that shows an error block of the authority."""
    return f"The webservice returned an error :{description}\n".encode()


def executable_path(path: str) -> bytes:
    """The notice that the installation path was taken from the tool's own path."""
    return f"can't acccess /usr/zenta/vrmo/qxag, use the path of current executable app {path}\n".encode()


def written_to(path: object = "") -> bytes:
    """The closing line of a provisioned configuration file."""
    return f"##Configfile written to {path}\n".encode()


def invalid_type(component_type: str) -> str:
    """The description for a component type that does not exist."""
    names = "".join(f"{name} " for name in COMPONENT_TYPES)
    return f'Type "{component_type}" is not a valid type. Must be one of "{names}".\n'


def invalid_action(action: str, component_type: str) -> str:
    """The description for an action that the type does not allow."""
    allowed = "".join(f"{name} " for name in ALLOWED_ACTIONS.get(component_type, ()))
    return f"Action {action} is not a valid action for type {component_type}.\nValid actions are: {allowed}\n"


def bad_combination(directory_option: str) -> str:
    """The description for output options that do not go together."""
    return (
        "Bad combination of arguments given. Please specify one of the following sets of arguments:\n"
        "- no arguments. result will be printed to standard output\n"
        f'- "todisk" argument. This requires the {directory_option} argument (possibly from the configuration file)\n'
        '- "file" and "file2" arguments.\n'
    )
