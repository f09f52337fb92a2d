#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets into fuzz/corpus/<target>/.

Each seed is a small, meaningful input in the layout its target documents at
the top of its source: valid Modbus TCP and remote replies for every register
kind, address texts, descriptor lists from the grouping examples, call
sequences with a cyclic pass and a write, and plcgate's set payloads. Run it again after changing an
input layout: python3 fuzz/make_seeds.py
"""
import os
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def u8(v):
    return struct.pack("<B", v & 0xFF)


def i8(v):
    return struct.pack("<b", v)


def u16(v):
    return struct.pack("<H", v & 0xFFFF)


def i16(v):
    return struct.pack("<h", v)


def i32(v):
    return struct.pack("<i", v)


def count12(v):
    """A 12-bit signed count (-2048..2047) as the targets read it."""
    return u16(v & 0x0FFF)


def addr_number(value):
    """fuzz_address_text form 0: a decimal number."""
    return u8(0) + u16(value)


def addr_bit(byte, bit):
    """fuzz_address_text form 1: byte.bit."""
    return u8(1) + u16(byte) + u8(bit)


def addr_latin1(text):
    """fuzz_address_text form 2: raw Latin-1 bytes."""
    raw = text.encode("latin-1")
    return u8(2) + u8(len(raw)) + raw


def addr_for_kind(value):
    """fuzz_address_for_kind, valid form: a bit kind gets value>>3 . value&7."""
    return u8(0) + u16(value)


def write(target, name, data):
    folder = os.path.join(ROOT, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


# ---------------------------------------------------------------- conversions

def converted(kind, addr, count):
    """update_rw_var: (kind, start, count) in request units."""
    if kind in (0, 1):
        return kind, addr >> 3, ((addr & 7) + count + 7) >> 3
    if kind == 5:
        return 4, addr >> 4, ((addr & 15) + count + 15) >> 4
    cls = {6: 2, 7: 3, 8: 4, 9: 2, 10: 3, 11: 4, 12: 2, 13: 3, 14: 4}.get(kind, kind)
    if kind in (6, 7, 8):
        return cls, addr >> 1, ((addr & 1) + count + 1) // 2
    if kind in (9, 10, 11):
        return cls, addr * 2, ((count + 1) // 2) * 2
    if kind in (12, 13, 14):
        return cls, addr * 4, ((count + 3) // 4) * 4
    return kind, addr, count


def read_data_len(kind, count):
    """Data bytes of a read request of a converted kind."""
    if kind in (0, 1):
        return (count + 7) >> 3
    if kind in (2, 3, 4):
        return count * 2
    return 0


# ---------------------------------------------------------------- fuzz_datacom

def datacom_head(setup, kind, station, count, retry=3, max_units=100, source_type=1, source_id=1, ext_sel=0,
                 ext2=0, address=addr_for_kind(10), data=b""):
    out = u8(setup) + u8(kind) + u8(station)
    out += i32(count) if setup & 0x80 else i16(count)
    out += i8(retry) + u8(max_units + 8) + i8(source_type) + i8(source_id) + u8(ext_sel) + i8(ext2)
    out += address + u8(len(data)) + data
    return out


def valid_round(input_bytes, length_mode=0):
    """A valid reply (control bit 0 set) taking input_bytes, then the length mode."""
    return u8(1) + input_bytes + u8(length_mode)


def raw_round(reply, length_mode=0, extra=b""):
    return u8(0) + u8(len(reply)) + reply + u8(length_mode) + extra


def datacom_seeds():
    for kind in range(15):
        for link in (0, 1):
            ck, _, cc = converted(kind, 10, 4)
            n = read_data_len(ck, cc)
            if link == 0:
                taken = n  # Modbus read response: 9 header bytes, then the data
            else:
                taken = n + 2  # remote reply: 5 + N bytes, the input fills all after the 3-byte header
            data = bytes((0x11 * (i + 1)) & 0xFF for i in range(taken))
            seed = datacom_head(0x00 | (link << 2), kind, 1, 4)
            seed += valid_round(data)
            seed += raw_round(b"\x00\x01\x00", length_mode=3)  # nothing received: retry
            write("fuzz_datacom", "cyclic_kind%02d_%s" % (kind, "modbus" if link == 0 else "remote"), seed)
    # Writes of every writable kind with an acknowledgement; bit and byte
    # writes read the register first (11-byte reply, value in bytes 9 and 10).
    for kind in (1, 3, 4, 5, 7, 8, 10, 11, 13, 14):
        seed = datacom_head(0x02, kind, 1, 2, data=b"\x01\x02\x03\x04")
        if kind in (5, 7, 8):
            seed += valid_round(b"\x12\x34")
        seed += valid_round(b"\x00\x00\x00\x06\x01\x10\x00\x0a\x00\x01")
        write("fuzz_datacom", "write_kind%02d" % kind, seed)
    # One-shot read (prepared) of a bit inside a register on the remote area:
    # the ext_param1 -1 store path.
    seed = datacom_head(0x19, 4, 1, 1, ext_sel=1)
    seed += valid_round(b"\xab\xcd", length_mode=0)
    write("fuzz_datacom", "once_prepared_remote_bitread", seed)
    # One-shot read, station 0 (any reply accepted), then a length that lies.
    seed = datacom_head(0x01, 3, 0, 2)
    seed += raw_round(b"\xff" * 13, length_mode=0)  # any reply of the expected length
    write("fuzz_datacom", "once_station0", seed)
    # Retries until given up with requester kind 3 (codes 41..52 family).
    seed = datacom_head(0x00, 4, 1, 2, retry=1, source_type=3)
    seed += raw_round(b"", length_mode=3) + raw_round(b"", length_mode=3)
    write("fuzz_datacom", "giveup_no_reply", seed)
    # A huge one-shot count (32-bit) and a reply whose length claims all of it.
    seed = datacom_head(0x91, 2, 1, 0x3FFFFFFF, ext_sel=0)
    seed += valid_round(b"\x01\x02\x03", length_mode=2)
    write("fuzz_datacom", "once_huge_count_lying_length", seed)
    # The same over words already in the mirror: the zero run clears them.
    seed = datacom_head(0x91, 4, 1, 0x3FFFFFFF, ext_sel=0, data=bytes(range(1, 17)))
    seed += valid_round(b"\x01\x02\x03", length_mode=2)
    write("fuzz_datacom", "once_huge_count_lying_length_over_values", seed)
    # A one-shot read of 2^31 - 1 words cut into chunks of one word: the list
    # fills at 2048 entries and the rest must not be walked chunk by chunk.
    seed = datacom_head(0x81, 2, 1, 0x7FFFFFFF, max_units=0)
    write("fuzz_datacom", "once_huge_count_full_list", seed)


# ---------------------------------------------------------------- fuzz_address

def address_seeds():
    cases = [
        ("bit_12_5", 0, 0, b"12.5"),
        ("bit_12", 0, 0, b"12"),
        ("bit_1_2_3", 1, 0, b"1.2.3"),
        ("bit_12_dot", 0, 0, b"12."),
        ("bit_a_1", 1, 0, b"a.1"),
        ("kind5_10_3", 5, 0, b"10.3"),
        ("bit_neg", 5, 0, b"3.-9"),
        ("bit_past_32_bits", 5, 0, b"001111111111.3"),
        ("word_100", 2, 0, b"100"),
        ("word_hex", 2, 0, b"0x10"),
        ("word_empty", 2, 0, b""),
        ("word_12_5", 2, 0, b"12.5"),
        ("word_space_plus", 3, 0, b" +42 "),
        ("word_max", 4, 0, b"2147483647"),
        ("word_over", 4, 0, b"2147483648"),
        ("kind_neg_7", -1, 0, b"7"),
        ("kind_200", 127, 0, b"-15"),
        ("utf8_fullwidth", 2, 1, "\uff11\uff12".encode("utf-8")),
        ("latin1_high", 0, 0, b"1\xb2.3"),
        ("utf16_bits", 0, 2, "12.5".encode("utf-16-le")),
    ]
    for name, kind, enc, text in cases:
        write("fuzz_address", name, i8(kind) + u8(enc) + text)


# ---------------------------------------------------------------- fuzz_read_list

def read_list_head(max_units=100, sfa=1, link=0, default_station=1, link_id=0):
    return i16(max_units) + u8(sfa | (link << 1)) + u8(default_station) + i8(link_id)


def desc(kind, station, address, count):
    return u8(kind) + u8(station) + address + count12(count)


def read_list_seeds():
    w = lambda a, c, st=1, k=2: desc(k, st, addr_number(a), c)
    write("fuzz_read_list", "merge_0_90", read_list_head() + w(0, 2) + w(90, 5))
    write("fuzz_read_list", "split_0_100", read_list_head() + w(0, 2) + w(100, 5))
    write("fuzz_read_list", "merge_split_99", read_list_head() + w(0, 2) + w(99, 5))
    write("fuzz_read_list", "long_250", read_list_head() + w(10, 250))
    write("fuzz_read_list", "covered", read_list_head() + w(5, 3) + w(6, 1))
    write("fuzz_read_list", "same_addr_limit1", read_list_head(max_units=1) + w(7, 2) + w(7, 4))
    write("fuzz_read_list", "bits_0_20",
          read_list_head() + desc(0, 1, addr_bit(0, 0), 16) + desc(0, 1, addr_bit(20, 0), 8))
    write("fuzz_read_list", "two_stations", read_list_head() + w(0, 4, st=2) + w(0, 4, st=1) + w(50, 2, st=2))
    write("fuzz_read_list", "count0_first_of_group",
          read_list_head() + w(0, 10, st=1, k=4) + desc(0, 2, addr_bit(0, 0), 0) + desc(0, 2, addr_bit(1, 0), 300))
    write("fuzz_read_list", "all_kinds_default_station",
          read_list_head(sfa=0, default_station=3) + b"".join(w(4 * k, 3 + k, st=k, k=k) for k in range(16)))
    run = lambda k, st, base, step, copies, c, desc_order=0: u8(0xFF) + u8(k) + u8(st) + u16(base) + u8(step) + \
        u8(copies) + i8(c) + u8(desc_order)
    write("fuzz_read_list", "runs_over_256_items",
          read_list_head() + run(2, 1, 0, 3, 150, 4) + run(4, 2, 1000, 200, 100, 90, 1) + run(0, 1, 0, 9, 40, 12) +
          w(500, 7, st=2, k=4))
    write("fuzz_read_list", "bad_texts",
          read_list_head(max_units=-5) + desc(2, 1, addr_latin1("0x10"), 4) + desc(0, 1, addr_latin1("12"), 4) +
          desc(200, 1, addr_number(3), -7))


# ---------------------------------------------------------------- fuzz_data_access

def access_head(max_units=100, write_mode2=False, comm_failed=False, sfa=1, default_station=1):
    return i8(max_units) + u8(int(write_mode2) | (int(comm_failed) << 1) | (sfa << 2)) + u8(default_station)


def access_op(op, kind, address, station, count, buf=b""):
    return u8(op) + i8(kind) + address + i16(station) + i16(count) + u8(len(buf)) + buf


def data_access_seeds():
    rt = lambda k, a, c, buf: access_op(2, k, a, 1, c, buf)
    write("fuzz_data_access", "roundtrip_words", access_head() + rt(4, addr_number(100), 2, b"\x01\x02\x03\x04") +
          rt(3, addr_number(7), 3, b"\xaa\xbb"))
    write("fuzz_data_access", "roundtrip_bits", access_head() + rt(5, addr_bit(3, 6), 3, b"\x01\x00\x05") +
          rt(1, addr_bit(0, 1), 10, b"\x01\x00\x01\x01\x00\x00\x00\x00\x00\x01"))
    write("fuzz_data_access", "roundtrip_bytes", access_head() + rt(8, addr_number(5), 2, b"\x12\x34\x56\x78"))
    write("fuzz_data_access", "roundtrip_dwords_qwords",
          access_head(max_units=2) + rt(11, addr_number(10), 5, bytes(range(1, 21))) +
          rt(14, addr_number(3), 5, bytes(range(1, 17))))
    write("fuzz_data_access", "queue_writes",
          access_head(max_units=2, write_mode2=True) + access_op(1, 4, addr_number(0), 1, 300, b"\x01\x02") +
          access_op(1, 2, addr_number(0), 1, 3, b"\x01"))
    write("fuzz_data_access", "reads_bad_input",
          access_head() + access_op(0, 2, addr_latin1("0x10"), 1, 4, b"\xff" * 3) +
          access_op(0, 15, addr_number(1), 1, 3) + access_op(0, 11, addr_number(1), 1, -3, b"\x01\x02\x03") +
          access_op(0, 7, addr_number(1), 1, 3) + access_op(0, -1, addr_number(1), 1, 2))
    write("fuzz_data_access", "comm_failed_write",
          access_head(write_mode2=True, comm_failed=True) + rt(4, addr_number(40), 2, b"\x05\x06\x07\x08"))


# ---------------------------------------------------------------- fuzz_sequence

def seq_head(max_units=100, retry=2, link=0, sfa=1, write_mode2=True, default_station=1):
    return i8(max_units) + i8(retry) + u8(link | (sfa << 1) | (int(write_mode2) << 2)) + u8(default_station)


def seq_recreate(descs):
    return u8(0) + u8(len(descs)) + b"".join(descs)


def seq_desc(kind, station, value, count):
    return u8(kind) + u8(station) + addr_for_kind(value) + count12(count)


def seq_set(kind, value, station, data, count, source_type=1, source_id=1):
    return u8(4) + u8(kind) + addr_for_kind(value) + u8(station) + u8(len(data)) + data + count12(count) + \
        i8(source_type) + u8(source_id)


def seq_get(kind, value, station, count):
    return u8(5) + i8(kind) + addr_for_kind(value) + u8(station) + count12(count)


CYCLE = u8(6)


def seq_reply_valid(input_bytes, length_mode=0):
    return u8(7) + u8(1) + input_bytes + u8(length_mode)


def seq_reply_raw(reply, length_mode=0):
    return u8(7) + u8(0) + u8(len(reply)) + reply + u8(length_mode)


def seq_com_info(max_units, retry, link, sfa, write_mode2, link_id, station, handle):
    return u8(10) + i8(max_units) + i8(retry) + u8(link | (sfa << 1) | (int(write_mode2) << 2) | (link_id << 3)) + \
        u8(station) + i8(handle)


def sequence_seeds():
    ack = b"\x00\x00\x00\x06\x01\x10\x00\x64\x00\x02"  # the 10 bytes after the echo of a write response
    # A cyclic pass over two words, a write of two words, the write answered,
    # the next cyclic read answered, and the value read back.
    seed = seq_head() + seq_recreate([seq_desc(4, 1, 100, 2), seq_desc(3, 1, 10, 1)])
    seed += CYCLE + seq_reply_valid(b"\x00\x07")  # kind 3 comes first (ordered by kind)
    seed += seq_set(4, 100, 1, b"\x34\x12\x78\x56", 2)
    seed += CYCLE + seq_reply_valid(ack)
    seed += CYCLE + seq_reply_valid(b"\x00\x01\x00\x02")
    seed += seq_get(4, 100, 1, 2)
    write("fuzz_sequence", "cyclic_pass_and_write", seed)
    # A bit write (read-modify-write pair), then a given-up one-shot read.
    seed = seq_head(retry=0) + seq_set(5, 17, 1, b"\x01", 1)
    seed += CYCLE + seq_reply_valid(b"\x12\x34") + CYCLE + seq_reply_valid(ack)
    seed += u8(2) + i8(2) + u8(2) + u8(1) + i8(0) + u8(4) + i16(0) + count12(3) + u8(1) + u8(2) + i8(0) + \
        addr_for_kind(8) + u8(0)  # AddListOnceReadVar flag 0, kind 4, 3 words at 8
    seed += CYCLE + seq_reply_raw(b"", length_mode=3)
    write("fuzz_sequence", "bit_write_then_giveup", seed)
    # Stations switched off, a new record switching to the remote frame.
    seed = seq_head() + seq_recreate([seq_desc(2, 1, 0, 4), seq_desc(2, 2, 0, 4)])
    seed += u8(8) + u8(2) + u8(0)  # EnCommStation(1, 0)
    seed += CYCLE + seq_reply_valid(b"\x00" * 8)
    seed += seq_com_info(100, 2, 1, 1, True, 0, 1, 5)
    seed += u8(9) + u8(0) + u8(1)  # EnableEthernet(-1, 1): every station on
    seed += CYCLE + seq_reply_valid(b"\x00" * 10) + CYCLE
    write("fuzz_sequence", "stations_and_link_switch", seed)


# ---------------------------------------------------------------- set payloads

# Indexes into kTags of fuzz_set_request.cpp.
SET_TAGS = {"coil": 0, "coils8": 1, "word_bits3": 2, "hr": 4, "hr4": 5, "dword": 6, "int16": 8,
            "uint16_scaled": 9, "int32_cdab": 10, "uint32x2": 11, "int64": 12, "uint64": 13, "float32": 14,
            "float32_scaled3": 15, "float64": 16, "hex2": 17, "hex_bytes3": 18, "bits": 19, "ascii5": 20,
            "ascii_bytes7": 21, "read_only": 22}


def set_seed(tag, payload):
    """fuzz_set_request: tag index, shape 0 (as given), the payload."""
    return u8(SET_TAGS[tag]) + u8(0) + payload.encode("utf-8")


def set_repeated(tag, length_units, payload):
    """fuzz_set_request: shape 1, the payload repeated to length_units x 64 bytes."""
    return u8(SET_TAGS[tag]) + u8(1) + u16(length_units) + payload.encode("utf-8")


def set_request_seeds():
    seeds = {
        "coil_true": ("coil", "true"),
        "coils8_array": ("coils8", "[1,0,1,1,0,0,1,0]"),
        "word_bits_object": ("word_bits3", '{"value": [true, false, 1], "id": "w1"}'),
        "hr_number": ("hr", "1234"),
        "hr_negative": ("hr", "-1"),
        "hr4_array": ("hr4", "[1, 2, 3, 65535]"),
        "dword_id_number": ("dword", '{"value": 4000000000, "id": 17}'),
        "int16_out_of_range": ("int16", "40000"),
        "uint16_scaled": ("uint16_scaled", "12.5"),
        "int32_object": ("int32_cdab", '{"id": "a", "value": -100000}'),
        "uint32_pair": ("uint32x2", "[4294967295, 0]"),
        "int64_min": ("int64", "-9223372036854775808"),
        "uint64_max": ("uint64", "18446744073709551615"),
        "float32_pi": ("float32", "3.14159"),
        "float32_huge": ("float32", "1e39"),
        "float32_scaled": ("float32_scaled3", "[1.5, -2, 1e-3]"),
        "float64_exp": ("float64", "-1.25e-300"),
        "hex_text": ("hex2", '["0x1234", "ffff"]'),
        "hex_bytes": ("hex_bytes3", '["0a", "ff", "00"]'),
        "bits_text": ("bits", '"1010101010101010"'),
        "ascii_text": ("ascii5", '"hello"'),
        "ascii_short": ("ascii_bytes7", '{"value": "ab", "id": "x"}'),
        "read_only": ("read_only", "5"),
        "unknown_key": ("hr", '{"value": 1, "when": 2}'),
        "no_value": ("hr", '{"id": "only"}'),
        "bad_id": ("hr", '{"value": 1, "id": [1]}'),
        "string_for_number": ("hr", '"12"'),
        "not_json": ("hr", "{value: 1"),
        "unicode_escape": ("ascii5", '"\\u00e9\\ud83d\\ude00"'),
        "empty": ("hr", ""),
    }
    for name, (tag, payload) in seeds.items():
        write("fuzz_set_request", name, set_seed(tag, payload))
    # Past the payload limit, and nested deeper than a value goes.
    write("fuzz_set_request", "oversized", set_repeated("hr4", 1100, "[1, 2, 3, 4],"))
    write("fuzz_set_request", "deep_nesting", set_repeated("hr", 64, "["))
    write("fuzz_set_request", "deep_objects", set_repeated("hr", 64, '{"value":'))


if __name__ == "__main__":
    datacom_seeds()
    address_seeds()
    read_list_seeds()
    data_access_seeds()
    sequence_seeds()
    set_request_seeds()
