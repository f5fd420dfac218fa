# System call 96: the settings of the USB gadget, and which modules are unloaded and loaded.
import pytest

from kx import owner_and_mode, remove, system
from operation import RESTARTED, Case

FOLDER, HUB_ID = "/etc/platform/usb_gadget/", "/etc/platform/sys/hubID"
SERIAL_FLAG, SPEED_FLAG, IDS_FLAG, UID_FLAG = FLAGS = [
    FOLDER + name for name in ("serial", "usb_force_fullspeed", "default_vid_pid", "usb_uid")]
ETHERNET = {"mode": "ethernet", "usbForceFullspeed": "false", "dflt": "0", "usbuid": False}
SERIAL = {**ETHERNET, "mode": "Serial", "lteConnected": True}
SERIAL_STOP = "g_serial", "usb_f_obex", "usb_f_serial", "usb_f_acm", "u_serial", "ci_hdrc_imx"
ETHERNET_STOP = "g_ether", "usb_f_rndis", "usb_f_ecm", "usb_f_ecm_subset", "u_ether", "ci_hdrc_imx"
CONTROLLER = "modprobe ci_hdrc_imx otg_gadget_forced=y gadget_force_full_speed="
ETHERNET_START = "modprobe -a usb_f_rndis usb_f_ecm usb_f_ecm_subset u_ether g_ether"
SERIAL_START = "modprobe -a usb_f_obex usb_f_serial usb_f_acm u_serial"
BY_NUMBER = "modprobe g_serial idVendor=0xABCD idProduct=0x30 sernum_str=12345678"
LOAD_ETHERNET = ["lsmod", CONTROLLER + "n", ETHERNET_START]
LOAD_SERIAL = ["lsmod", CONTROLLER + "n", SERIAL_START]
RELOAD = "err DoConfigureUSBGadget Couldn't reload usb gadget's modules  "


def unload(modules, silent=()):
    return [line for module in modules
            for line in ("rmmod " + module, "logger" if module in silent else "logger gone")]


def case(name, arguments, calls, result=0, **more):
    return Case(name, 96, arguments, result, calls, **more)


def refused(name, arguments, text, before={}, after={}):
    old = {HUB_ID: "old"}
    return case(name, ETHERNET | arguments, [], 1, log=["err DoConfigureUSBGadget " + text],
                before=old | before, after=old | after)


def obstacle(path, content, arguments, text):
    text = f"could not {text}".replace("PATH", f"'{path}'")
    return refused(text, arguments, text, {path: content}, {path: None if content == "/" else content})


def progress(function, *texts):
    return [f"info {function} {text}" for text in texts]


# Before the shared daemon, which stands in the root directory.
def test_unique_id_is_looked_up_from_the_working_directory(own):
    daemon = own(under=("env", "-C", "/tmp")).serving()
    uid = case("", SERIAL | {"usbuid": True}, [*LOAD_SERIAL, BY_NUMBER])
    assert uid.seen(daemon) == uid.expected


@pytest.mark.parametrize("case", [
    case("nothing is loaded", ETHERNET, LOAD_ETHERNET, answers={"lsmod": "x 1 2\n"}, events=RESTARTED,
         before=dict.fromkeys(FLAGS, ""), after=dict.fromkeys(FLAGS)),
    case("from ethernet to serial", SERIAL | {"usbForceFullspeed": "TRUE", "lteConnected": False},
         ["lsmod", *unload(ETHERNET_STOP), CONTROLLER + "y", SERIAL_START, BY_NUMBER], events=RESTARTED,
         answers={"lsmod": "u_ether 20480 2 usb_f_ecm,u_serial\n", "rmmod": "gone\n"}),
    case("from serial to serial, with other ids", SERIAL | {"dflt": True, "usbuid": "1"},
         ["lsmod", *unload(SERIAL_STOP), *LOAD_SERIAL[1:], "modprobe g_serial gadget_uid=y"],
         answers={"lsmod": "usb_f_acm 16384 1\nu_serial 20480 1 usb_f_acm\n", "rmmod": "gone\n"}),
    case("default ids only", SERIAL | {"dflt": "TRUE"},
         [*LOAD_SERIAL, "modprobe g_serial sernum_str=12345678"]),
    case("flags that stay", SERIAL | {"usbForceFullspeed": "True", "dflt": 1, "usbuid": True},
         ["lsmod", CONTROLLER + "y", SERIAL_START, "modprobe g_serial gadget_uid=y"],
         before={SERIAL_FLAG: "kept"}, after=dict.fromkeys(FLAGS, "") | {SERIAL_FLAG: "kept"}),
    case("modules that do not unload", SERIAL | {"lteConnected": False},
         ["lsmod", *unload(ETHERNET_STOP, ["g_ether", "u_ether"]), *unload(SERIAL_STOP), *LOAD_SERIAL[1:],
          BY_NUMBER], progress=True, events=RESTARTED,
         answers={"lsmod": "u_ether 2\nu_serial 1\n", "rmmod": {None: "gone\n", "g_ether": 2, "u_ether": 1}},
         log=[*progress("DoConfigureUSBGadget", "USB configuration started",
                        "creating USB config related files and directories", "stopping apps server",
                        "beginning reload process of USB modules"),
              *progress("reloadGadgetUsbModules", "checking active USB modules", "stopping USB modules"),
              "err stopUsbModules Failed to stop module g_ether. Continue.",
              "err stopUsbModules Failed to stop module u_ether. Continue.",
              *progress("reloadGadgetUsbModules", "stopping USB modules (ret == 3)",
                        "starting ci_hdrc_imx USB module", "starting other USB modules",
                        "starting g_serial USB module"),
              *progress("DoConfigureUSBGadget", "USB modules reloaded, continuing", "starting apps server",
                        "USB configuration completed successfully")]),
    case("g_serial does not load", SERIAL, [*LOAD_SERIAL, BY_NUMBER], 1, log=[RELOAD + "6"],
         answers={"modprobe": {"g_serial": 6}}),
    case("a module does not load", SERIAL, LOAD_SERIAL, 1, log=[RELOAD + "5"],
         answers={"modprobe": {"-a": 5}}),
    case("the controller does not load", ETHERNET | {"hubid": "UNCHANGED"}, LOAD_ETHERNET[:2], 1,
         log=[RELOAD + "4"], answers={"modprobe": 4}, events=RESTARTED,
         before={HUB_ID: "old"}, after={HUB_ID: "old"}),
    *(case(f"hub id {given[:5]!r}", ETHERNET | {"hubid": given}, LOAD_ETHERNET,
           before={HUB_ID: old}, after={HUB_ID: new})
      for given, old, new in (("ABC", "longer", "abc"), ("\xc4" * 999, None, "\xe4" * 999), ("", "old", None),
                              ("", None, None))),
    *(Case("no " + key, 96, {k: v for k, v in ETHERNET.items() if k != key}, 1, after={FOLDER[:-1]: None},
           log=[f"err DoConfigureUSBGadget '{key}' argument is missing"]) for key in ETHERNET),
    refused("mode", {"mode": "BOTH"}, "invalid mode 'both'", after={FOLDER[:-1]: None}),
    refused("speed", {"usbForceFullspeed": "Yes"}, "invalid  usbForceFullspeed : 'yes'"),
    refused("ids", {"dflt": 2}, "invalid legacy vendor and product ids : '2'"),
    refused("unique id", {"usbuid": []}, "invalid legacy serial number : ''"),
    obstacle(FOLDER[:-1], "-> /none", {}, "create directory PATH, File exists"),
    obstacle("/etc/platform/usbphy0", "-> /none", {}, "create directory PATH, File exists"),
    obstacle(HUB_ID, "-> /none/x", {"hubid": "1"}, "open file PATH, No such file or directory"),
    obstacle(HUB_ID, "-> /dev/full", {"hubid": "1"}, "write to file PATH, No space left on device"),
    obstacle(HUB_ID, "/", {"hubid": ""}, "delete file PATH, Is a directory"),
    obstacle(UID_FLAG, "-> /none/file", {"usbuid": "1"}, "create file PATH, No such file or directory"),
    obstacle(UID_FLAG, "/", {}, "delete file PATH, Is a directory"),
], ids=lambda case: case.name)
def test_usb(shared, case):
    assert case.seen(shared) == case.expected


def test_modes_of_what_is_made(shared):
    remove("/etc/platform/usbphy0")
    system(96, SERIAL | {"usbuid": True, "hubid": "x"})
    made = FOLDER[:-1], "/etc/platform/usbphy0", UID_FLAG, HUB_ID  # with a umask of 022
    assert [owner_and_mode(path) for path in made] == ["0:0 755", "0:0 755", "0:0 640", "0:0 644"]
