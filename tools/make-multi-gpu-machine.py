#!/usr/bin/env python3
"""Writes the sysfs trees of the machines with many AMD GPUs in machines/.

    tools/make-multi-gpu-machine.py rig     machines/amd-12-gpu-mining-rig
    tools/make-multi-gpu-machine.py server  machines/amd-mi300x-8-gpu-server

Both are laid out as the kernel shows such machines (amdgpu's file formats,
hwmon-notes of the project's README): every card under its PCI device, the
class entries as links, hwmon numbers that other devices took first.

- rig: twelve RX 6600 (1002:73FF rev C7) behind PCIe risers, card0..card11,
  connectors and render nodes beside them; k10temp and an NVMe drive hold
  hwmon0 and hwmon1, so the GPUs have hwmon2..hwmon13.
- server: eight Instinct MI300X (1002:74A1), whose DRM nodes come in steps of
  eight (card1, card9, ..., card57; the nodes between belong to the
  accelerator's partitions and have no PCI vendor file), passively cooled
  (no fan files), no edge temperature (temp2 junction, temp3 mem) and hwmon
  numbers after the BMC's and the drives' (hwmon12 and up).
"""
import os
import sys


def write(root, path, text):
    full = os.path.join(root, path)
    os.makedirs(os.path.dirname(full), exist_ok=True)
    with open(full, 'w') as f:
        f.write(text)


def link(root, path, target):
    full = os.path.join(root, path)
    os.makedirs(os.path.dirname(full), exist_ok=True)
    os.symlink(target, full)


def card(root, index, card, hwmon, bus, gpu):
    dev = f'devices/pci0000:{bus:02x}/0000:{bus:02x}:01.1/0000:{bus + 1:02x}:00.0'
    pci = f'{dev}'
    address = f'0000:{bus + 1:02x}:00.0'
    for name, value in gpu['ids'].items():
        write(root, f'sys/{pci}/{name}', value + '\n')
    write(root, f'sys/{pci}/class', '0x030000\n' if gpu['display'] else '0x120000\n')
    write(root, f'sys/{pci}/uevent',
          f'DRIVER=amdgpu\nPCI_CLASS={"30000" if gpu["display"] else "120000"}\n'
          f'PCI_ID=1002:{gpu["ids"]["device"][2:].upper()}\nPCI_SLOT_NAME={address}\n')
    write(root, f'sys/{pci}/vbios_version', gpu['vbios'] + '\n')
    busy = (index * 7 + 3) % 101
    write(root, f'sys/{pci}/gpu_busy_percent', f'{busy}\n')
    write(root, f'sys/{pci}/mem_busy_percent', f'{busy // 3}\n')
    write(root, f'sys/{pci}/mem_info_vram_total', f'{gpu["vram"]}\n')
    write(root, f'sys/{pci}/mem_info_vram_used', f'{gpu["vram"] // 8 + index * 1048576}\n')
    hw = f'{pci}/hwmon/hwmon{hwmon}'
    write(root, f'sys/{hw}/name', 'amdgpu\n')
    for sensor, (label, value) in gpu['temps'].items():
        write(root, f'sys/{hw}/temp{sensor}_input', f'{value + index * 1000}\n')
        write(root, f'sys/{hw}/temp{sensor}_label', label + '\n')
    write(root, f'sys/{hw}/freq1_input', f'{gpu["sclk"] + index * 1000000}\n')
    write(root, f'sys/{hw}/freq1_label', 'sclk\n')
    write(root, f'sys/{hw}/freq2_input', f'{gpu["mclk"]}\n')
    write(root, f'sys/{hw}/freq2_label', 'mclk\n')
    write(root, f'sys/{hw}/power1_average', f'{gpu["power"] + index * 1000000}\n')
    write(root, f'sys/{hw}/power1_cap', f'{gpu["cap"]}\n')
    write(root, f'sys/{hw}/power1_label', 'PPT\n')
    if gpu['fan']:
        write(root, f'sys/{hw}/fan1_input', f'{1200 + index * 10}\n')
        write(root, f'sys/{hw}/pwm1', '96\n')
        write(root, f'sys/{hw}/pwm1_max', '255\n')
    link(root, f'sys/{hw}/device', '../../../' + address)
    link(root, f'sys/class/hwmon/hwmon{hwmon}', f'../../{hw}')
    link(root, f'sys/{pci}/drm/card{card}/device', '../../../' + address)
    link(root, f'sys/class/drm/card{card}', f'../../{pci}/drm/card{card}')
    link(root, f'sys/class/drm/renderD{128 + index}', f'../../{pci}/drm/renderD{128 + index}')
    os.makedirs(os.path.join(root, f'sys/{pci}/drm/renderD{128 + index}'), exist_ok=True)
    for connector in gpu['connectors']:
        name = f'card{card}-{connector}'
        os.makedirs(os.path.join(root, f'sys/{pci}/drm/card{card}/{name}'), exist_ok=True)
        link(root, f'sys/class/drm/{name}', f'../../{pci}/drm/card{card}/{name}')
    link(root, f'sys/bus/pci/devices/{address}', f'../../../{pci}')


def partition_nodes(root, first, count):
    """DRM nodes of an accelerator's partitions: platform devices, no vendor."""
    for n in range(first, first + count):
        node = f'devices/platform/amdgpu_xcp_{n}/drm/card{n}'
        os.makedirs(os.path.join(root, 'sys', node), exist_ok=True)
        link(root, f'sys/class/drm/card{n}', f'../../{node}')


def other_hwmons(root, names):
    for number, name in enumerate(names):
        hw = f'devices/virtual/hwmon/hwmon{number}'
        write(root, f'sys/{hw}/name', name + '\n')
        link(root, f'sys/class/hwmon/hwmon{number}', f'../../{hw}')


RX6600 = {
    'ids': {'vendor': '0x1002', 'device': '0x73ff', 'revision': '0xc7',
            'subsystem_vendor': '0x1da2', 'subsystem_device': '0xe133'},
    'display': True, 'vbios': '113-D4300100-100', 'vram': 8573157376,
    'temps': {1: ('edge', 61000), 2: ('junction', 74000), 3: ('mem', 70000)},
    'sclk': 2044000000, 'mclk': 875000000, 'power': 88000000, 'cap': 100000000,
    'fan': True, 'connectors': ['DP-1', 'HDMI-A-1'],
}
MI300X = {
    'ids': {'vendor': '0x1002', 'device': '0x74a1', 'revision': '0x00',
            'subsystem_vendor': '0x1002', 'subsystem_device': '0x74a1'},
    'display': False, 'vbios': '113-M3000100-102', 'vram': 206141652992,
    'temps': {2: ('junction', 48000), 3: ('mem', 41000)},
    'sclk': 132000000, 'mclk': 900000000, 'power': 142000000, 'cap': 750000000,
    'fan': False, 'connectors': [],
}


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in ('rig', 'server'):
        sys.exit(__doc__)
    kind, root = sys.argv[1], sys.argv[2]
    if os.path.exists(os.path.join(root, 'sys')):
        sys.exit(f'{root}/sys exists already')
    if kind == 'rig':
        other_hwmons(root, ['k10temp', 'nvme'])
        for i in range(12):
            card(root, i, i, 2 + i, 0x10 * (i + 1), RX6600)
    else:
        other_hwmons(root, ['acpitz', 'ast', 'nvme', 'nvme', 'nvme', 'nvme', 'k10temp',
                            'k10temp', 'drivetemp', 'drivetemp', 'ipmi', 'power_meter'])
        link(root, 'sys/class/drm/card0', '../../devices/pci0000:00/0000:00:01.0/drm/card0')
        write(root, 'sys/devices/pci0000:00/0000:00:01.0/vendor', '0x1a03\n')  # the BMC's VGA (ast)
        write(root, 'sys/devices/pci0000:00/0000:00:01.0/device', '0x2000\n')
        write(root, 'sys/devices/pci0000:00/0000:00:01.0/uevent', 'DRIVER=ast\n')
        link(root, 'sys/devices/pci0000:00/0000:00:01.0/drm/card0/device', '../../../0000:00:01.0')
        for i in range(8):
            first = 1 + 8 * i
            card(root, i, first, 12 + i, 0x10 * (i + 1), MI300X)
            partition_nodes(root, first + 1, 7)


if __name__ == '__main__':
    main()
