# SPDX-License-Identifier: Apache-2.0
"""python3 -m orv_testbed.machine.power FOLDER ETHERNET-NAMESPACE CELLULAR-NAMESPACE [CLOCK]

Becomes the machine: qemu, with a network card at each provider. FOLDER holds kernel, initrd.gz and disk.img, and gets the
serial console's log and the sockets of guest agent and monitor. The processor starts at the monitor's word "cont". To end
this process is to cut the machine's power. CLOCK is the time of its real-time clock at the start, such as 2000-01-01; without
it, now. ORV_MACHINE_SHIFT=N: by its own clock the machine executes an instruction in 2^N ns, however fast the host is; without
it, as fast as the host can.
"""
import contextlib
import ctypes
import fcntl
import os
import pathlib
import struct
import sys

CLONE_NEWNET = 0x40000000
TUNSETIFF = 0x400454CA
IFF_TAP, IFF_NO_PI = 0x0002, 0x1000
CARDS = (("eth", "02:00:00:00:0a:01"), ("cell", "02:00:00:00:0b:01"))


def open_tap(namespace: str) -> int:
    """The machine's end of the provider's link "lan", which is to be there already. Leaves this process in the namespace."""
    libc = ctypes.CDLL(None, use_errno=True)
    with open(f"/run/netns/{namespace}", encoding="ascii") as place:
        if libc.setns(place.fileno(), CLONE_NEWNET):
            raise OSError(ctypes.get_errno(), f"cannot enter {namespace}")
    tap = os.open("/dev/net/tun", os.O_RDWR)
    fcntl.ioctl(tap, TUNSETIFF, struct.pack("16sH22x", b"lan", IFF_TAP | IFF_NO_PI))
    os.set_inheritable(tap, True)
    return tap


def command(folder: pathlib.Path, taps: list[int], clock: str) -> list[str]:
    words = [
        "qemu-system-mipsel",
        "-M",
        "malta",
        "-cpu",
        "34Kf",
        "-m",
        "512",
        "-nographic",
        "-vga",
        "none",
        "-no-reboot",
        "-S",
    ]
    words += ["-kernel", str(folder / "kernel"), "-initrd", str(folder / "initrd.gz")]
    words += ["-append", "console=ttyS0 net.ifnames=0 systemd.show_status=1"]
    words += ["-drive", f"file={folder}/disk.img,format=raw,if=virtio"]
    # The kernel finds out how fast the processor's counter is by the real-time clock: both have to follow the same time.
    shift = os.environ.get("ORV_MACHINE_SHIFT")
    if shift:
        words += ["-icount", f"shift={shift},sleep=on"]
    words += ["-rtc", f"base={clock},clock={'vm' if shift else 'host'}", "-serial", "chardev:console"]
    words += ["-chardev", f"file,id=console,path={folder}/console,append=on"]
    words += ["-monitor", "none", "-qmp", f"unix:{folder}/monitor,server=on,wait=off"]
    words += ["-chardev", f"socket,id=agent,path={folder}/agent,server=on,wait=off", "-device", "virtio-serial-pci"]
    words += ["-device", "virtserialport,chardev=agent,name=org.qemu.guest_agent.0"]
    words += ["-chardev", f"file,id=seen,path={folder}/seen,append=on"]
    words += ["-device", "virtserialport,chardev=seen,name=testbed.seen"]
    # Without the board's own network card: it would be eth0.
    for (side, address), tap in zip(CARDS, taps):
        words += [
            "-netdev",
            f"tap,id={side},fd={tap}",
            "-device",
            f"virtio-net-pci,id=card-{side},netdev={side},mac={address},romfile=",
        ]
    return words


def main() -> None:
    folder = pathlib.Path(sys.argv[1])
    home = os.open("/proc/self/ns/net", os.O_RDONLY)
    taps = [open_tap(namespace) for namespace in sys.argv[2:4]]
    ctypes.CDLL(None).setns(home, CLONE_NEWNET)
    # What is measured and waited for on it is to tell of the machine, not of what else this host has to do.
    with contextlib.suppress(OSError):  # a container may not
        os.nice(-10)
    with contextlib.suppress(OSError):  # a kernel without groups of processes
        pathlib.Path("/proc/self/autogroup").write_text("-10", encoding="ascii")
    words = command(folder, taps, sys.argv[4] if len(sys.argv) > 4 else "utc")
    os.execvp(words[0], words)


if __name__ == "__main__":
    main()
