#!/usr/bin/env python3
"""Writes the recorded hosts the host tests load (run from this folder; the output is committed).

iscsi-array: a host with two iSCSI sessions (host3 to controller A's first port, host4 to
  controller B's first port) of the emulator's demo array (serials 00C0FF49FE0A...), a local
  SATA disk sda with an MBR, and two multipath maps of two paths each with ALUA states:
  mpatha (db01: sdb via A optimized, sdc via B non-optimized, a GPT disk) and mpathb
  (archive01: sdd via A non-optimized, sde via B optimized, no partition table).
fc-other: a Fibre Channel adapter (host5) with one remote port and a disk of another maker.
empty: a host with no SCSI devices, no adapters and no multipath daemon.
"""
import json, os, shutil, struct, zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def put(root, rel, data):
    path = os.path.join(root, rel)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, 'wb') as f:
        f.write(data.encode() if isinstance(data, str) else data)


def inquiry(vendor, product, rev, tpgs=0):
    b = bytearray(96)
    b[0] = 0  # disk
    b[2] = 6
    b[3] = 2
    b[4] = 91
    b[5] = (tpgs & 3) << 4
    b[7] = 0x02  # command queueing
    b[8:16] = vendor.ljust(8).encode()[:8]
    b[16:32] = product.ljust(16).encode()[:16]
    b[32:36] = rev.ljust(4).encode()[:4]
    return bytes(b)


def page80(text):
    t = text.encode()
    return bytes([0, 0x80, 0, len(t)]) + t


def desc(code_set, assoc, dtype, data, piv=False, proto=0):
    b0 = (proto << 4) | code_set
    b1 = (0x80 if piv else 0) | (assoc << 4) | dtype
    return bytes([b0, b1, 0, len(data)]) + data


def page83(descs):
    body = b''.join(descs)
    return bytes([0, 0x83]) + struct.pack('>H', len(body)) + body


def lun_serial(pid):
    s = bytearray(16)
    s[0:3] = b'\x00\xc0\xff'
    s[3:6] = b'\x49\xfe\x0a'  # the demo array's serial prefix
    s[6] = 0x50
    s[8:12] = struct.pack('>I', pid)
    s[12] = 0xB0
    return bytes(s)


def naa_of(s):
    o = bytearray(16)
    o[0] = 0x60 | (s[0] >> 4)
    o[1] = ((s[1] >> 4) ^ (s[0] << 4)) & 0xFF
    o[2] = ((s[2] >> 4) ^ (s[1] << 4)) & 0xFF
    o[3] = (s[2] << 4) & 0xFF
    o[5:8] = s[3:6]
    o[8:13] = s[8:13]
    return bytes(o)


def array_page83(serial, rel_port, group):
    vendor = bytes(range(0x40, 0x40 + 56))
    return page83([
        desc(1, 0, 3, naa_of(serial)),
        desc(1, 1, 4, struct.pack('>HH', 0, rel_port), piv=True, proto=5),
        desc(1, 1, 5, struct.pack('>HH', 0, group), piv=True, proto=5),
        desc(1, 0, 0, vendor),
    ])


def mbr_disk(signature, size=64 * 1024):
    d = bytearray(size)
    d[440:444] = struct.pack('<I', signature)
    # one Linux partition from sector 2048 (past the end of this short recording; blkid reads the
    # table only)
    d[446 + 4] = 0x83
    d[446 + 8:446 + 12] = struct.pack('<I', 2048)
    d[446 + 12:446 + 16] = struct.pack('<I', 4096)
    d[510:512] = b'\x55\xaa'
    return bytes(d)


def gpt_disk(disk_guid, size=128 * 1024):
    lbas = size // 512
    d = bytearray(size)
    # protective MBR
    d[446 + 4] = 0xEE
    d[446 + 8:446 + 12] = struct.pack('<I', 1)
    d[446 + 12:446 + 16] = struct.pack('<I', lbas - 1)
    d[510:512] = b'\x55\xaa'
    entries = bytearray(128 * 128)
    linux = bytes.fromhex('AF3DC60F838472478E793D69D8477DE4')  # Linux filesystem type, on-disk order
    entries[0:16] = linux
    entries[16:32] = bytes(range(1, 17))
    entries[32:40] = struct.pack('<Q', 34)
    entries[40:48] = struct.pack('<Q', lbas - 34)
    ecrc = zlib.crc32(bytes(entries)) & 0xFFFFFFFF

    def header(my, alt, entries_lba):
        h = bytearray(92)
        h[0:8] = b'EFI PART'
        h[8:12] = struct.pack('<I', 0x00010000)
        h[12:16] = struct.pack('<I', 92)
        h[24:32] = struct.pack('<Q', my)
        h[32:40] = struct.pack('<Q', alt)
        h[40:48] = struct.pack('<Q', 34)
        h[48:56] = struct.pack('<Q', lbas - 34)
        h[56:72] = disk_guid
        h[72:80] = struct.pack('<Q', entries_lba)
        h[80:84] = struct.pack('<I', 128)
        h[84:88] = struct.pack('<I', 128)
        h[88:92] = struct.pack('<I', ecrc)
        h[16:20] = struct.pack('<I', zlib.crc32(bytes(h)) & 0xFFFFFFFF)
        return bytes(h)

    d[512:512 + 92] = header(1, lbas - 1, 2)
    d[1024:1024 + len(entries)] = entries
    d[(lbas - 33) * 512:(lbas - 33) * 512 + len(entries)] = entries
    d[(lbas - 1) * 512:(lbas - 1) * 512 + 92] = header(lbas - 1, 1, lbas - 33)
    return bytes(d)


def unit(root, addr, dev, sg, inq, p80=None, p83=None, state=None, preferred=None):
    base = 'sys/class/scsi_device/%s/device/' % addr
    put(root, base + 'type', '0\n')
    put(root, base + 'vendor', inq[8:16].decode() + '\n')
    put(root, base + 'model', inq[16:32].decode() + '\n')
    put(root, base + 'rev', inq[32:36].decode() + '\n')
    put(root, base + 'inquiry', inq)
    if p80 is not None:
        put(root, base + 'vpd_pg80', p80)
    if p83 is not None:
        put(root, base + 'vpd_pg83', p83)
    if state is not None:
        put(root, base + 'access_state', state + '\n')
    if preferred is not None:
        put(root, base + 'preferred_path', '%d\n' % preferred)
    # the node folders hold their device numbers, as in sysfs (and so that git keeps them)
    put(root, base + 'block/%s/dev' % dev, '8:%d\n' % (16 * (ord(dev[-1]) - ord('a'))))
    put(root, base + 'scsi_generic/%s/dev' % sg, '21:%s\n' % sg[2:])


def iscsi_session(root, host, sid, target, initiator, address):
    base = 'sys/class/iscsi_host/host%d/device/session%d/' % (host, sid)
    sess = base + 'iscsi_session/session%d/' % sid
    put(root, sess + 'targetname', target + '\n')
    put(root, sess + 'initiatorname', initiator + '\n')
    put(root, sess + 'state', 'LOGGED_IN\n')
    put(root, sess + 'tpgt', '1\n')
    conn = base + 'connection%d:0/iscsi_connection/connection%d:0/' % (sid, sid)
    put(root, conn + 'persistent_address', address + '\n')
    put(root, conn + 'persistent_port', '3260\n')


def path(dev, hctl, state, pri, chk='ready'):
    return {"dev": dev, "dev_t": "8:0", "dm_st": state, "dev_st": "running", "chk_st": chk,
            "checker": "tur", "pri": pri, "host_wwnn": "[undef]", "target_wwnn": "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c",
            "host_wwpn": "[undef]", "target_wwpn": "[undef]", "host_adapter": "192.168.10.1",
            "marginal_st": "normal"}


def mpmap(name, wwid, dm, groups):
    return {"name": name, "uuid": wwid, "sysfs": dm, "failback": "immediate", "queueing": "5 chk",
            "paths": sum(len(g[2]) for g in groups), "write_prot": "rw", "dm_st": "active",
            "features": "0", "hwhandler": "1 alua", "action": "", "path_faults": 0,
            "vend": "TROV", "prod": "R3000i", "rev": "J200", "switch_grp": 0, "map_loads": 1,
            "total_q_time": 0, "q_timeouts": 0,
            "path_groups": [{"selector": sel, "pri": pri, "dm_st": st, "marginal_st": "normal",
                             "group": i + 1, "paths": ps} for i, (sel, pri, ps, st) in enumerate(
                                 (g[0], g[1], g[2], g[3]) for g in groups)]}


def iscsi_array(root):
    initiator = 'iqn.1991-05.com.microsoft:host01.demo.local'
    target = 'iqn.1995-03.com.trov:01.array.00c0ff1a2b3c'
    for h in (2, 3, 4):
        put(root, 'sys/class/scsi_host/host%d/proc_name' % h, 'ahci\n' if h == 2 else 'iscsi_tcp\n')
    put(root, 'etc/iscsi/initiatorname.iscsi', '## written by iscsi-iname\nInitiatorName=%s\n' % initiator)
    iscsi_session(root, 3, 1, target, initiator, '192.168.10.10')
    iscsi_session(root, 4, 2, target, initiator, '192.168.10.20')

    local = inquiry('ATA', 'WDC WD5000AAKX', '1H15')
    unit(root, '2:0:0:0', 'sda', 'sg0', local, page80('WD-WCAYUJ123456'),
         page83([desc(2, 0, 1, b'ATA     WDC WD5000AAKX WD-WCAYUJ123456')]))
    put(root, 'dev/sda', mbr_disk(0x1234ABCD))

    array = inquiry('TROV', 'R3000i', 'J200', tpgs=1)
    db01, archive01 = lun_serial(1), lun_serial(4)
    gpt = gpt_disk(bytes.fromhex('00112233445566778899AABBCCDDEEFF'))
    for addr, dev, sg, serial, rel, grp, state, pref, disk in (
            ('3:0:0:1', 'sdb', 'sg1', db01, 1, 1, 'active/optimized', 1, gpt),
            ('4:0:0:1', 'sdc', 'sg2', db01, 3, 2, 'active/non-optimized', 0, gpt),
            ('3:0:0:2', 'sdd', 'sg3', archive01, 1, 1, 'active/non-optimized', 0, bytes(64 * 1024)),
            ('4:0:0:2', 'sde', 'sg4', archive01, 3, 2, 'active/optimized', 1, bytes(64 * 1024))):
        unit(root, addr, dev, sg, array, page80(serial.hex()), array_page83(serial, rel, grp), state, pref)
        put(root, 'dev/' + dev, disk)
        put(root, 'dev/' + sg, b'')

    maps = {"major_version": 0, "minor_version": 1, "maps": [
        mpmap('mpatha', '3' + naa_of(db01).hex(), 'dm-0',
              [('service-time 0', 50, [path('sdb', '3:0:0:1', 'active', 50)], 'active'),
               ('service-time 0', 10, [path('sdc', '4:0:0:1', 'active', 10)], 'enabled')]),
        mpmap('mpathb', '3' + naa_of(archive01).hex(), 'dm-1',
              [('round-robin 0', 30, [path('sdd', '3:0:0:2', 'active', 10),
                                      path('sde', '4:0:0:2', 'active', 50)], 'active')]),
    ]}
    put(root, 'etc/multipath/conf.d/10-defaults.conf', 'defaults {\n\tuser_friendly_names yes\n\tfind_multipaths yes\n}\n')
    put(root, 'multipathd/show_daemon', 'pid 812 running\n')
    put(root, 'multipathd/show_maps_json', json.dumps(maps, indent=3) + '\n')


def fc_other(root):
    put(root, 'sys/class/scsi_host/host5/proc_name', 'qla2xxx\n')
    fc = 'sys/class/fc_host/host5/'
    for k, v in (('node_name', '0x20000024ff3a5b6c'), ('port_name', '0x21000024ff3a5b6c'),
                 ('port_type', 'NPort (fabric via point-to-point)'), ('port_state', 'Online'),
                 ('speed', '8 Gbit'), ('supported_speeds', '2 Gbit, 4 Gbit, 8 Gbit')):
        put(root, fc + k, v + '\n')
    rp = 'sys/class/fc_remote_ports/rport-5:0-0/'
    for k, v in (('port_name', '0x50060e8005a1b2c3'), ('node_name', '0x50060e8005a1b2c0'),
                 ('port_id', '0x010200'), ('scsi_target_id', '0'), ('roles', 'FCP Target')):
        put(root, rp + k, v + '\n')
    other = inquiry('HITACHI', 'OPEN-V', '8301')
    unit(root, '5:0:0:0', 'sdf', 'sg5', other, page80('50 0A1B2'),
         page83([desc(1, 0, 3, bytes.fromhex('60060e8005a1b2000000a1b200000010'))]))
    put(root, 'dev/sdf', bytes(64 * 1024))
    put(root, 'dev/sg5', b'')
    put(root, 'multipathd/show_daemon', 'pid 77 running\n')
    put(root, 'multipathd/show_maps_json', '{"major_version": 0, "minor_version": 1, "maps": []}\n')


def empty(root):
    put(root, 'etc/hostname', 'bare\n')


for name, make in (('iscsi-array', iscsi_array), ('fc-other', fc_other), ('empty', empty)):
    root = os.path.join(HERE, name)
    shutil.rmtree(root, ignore_errors=True)
    make(root)
