// Host set-up, PLC address parsing, variable registration and the grouping
// of the runtime's cyclic read list into block reads.
#include "Communication_Protocol.h"
#include "Driver_Internal.h"
#include "Driver_Lock.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>
#include <utility>

void *LB = nullptr;
void *LW = nullptr;
void *RWI = nullptr;

namespace {
const int kListCap = 2048;
// A max_read_units above the largest accepted is replaced (by 100, not by the bound).
const qint32 kMaxReadUnitsAccepted = 120;
const qint32 kMaxReadUnitsReplacement = 100;

int locked_size(const QList<RW_VAR> &list)
{
    DriverLock lock(PLC_driver.list_mutex);
    return list.size();
}
} // namespace

// ---------------------------------------------------------------- set-up

extern "C" void SetComInfo(ComInfo *info)
{
    const qint32 max_units = info->max_read_units;
    PLC_driver.com_info = info;
    if (max_units > kMaxReadUnitsAccepted)
        info->max_read_units = kMaxReadUnitsReplacement;
    info->field52 = 0;
    info->field40 = 0;
}

extern "C" void FlashLocalRegister(void *bit_area, void *word_area, void *third_area)
{
    LB = bit_area;
    LW = word_area;
    RWI = third_area;
}

extern "C" void RegistCallBackFuncIntf(WriteDoneCallback write_done, ReadDoneCallback read_done)
{
    PLC_driver.write_done_cb = write_done;
    PLC_driver.read_done_cb = read_done;
}

// ---------------------------------------------------------------- addresses

namespace {
// Decimal parse of text[from, from + len) with the rules of QString::toInt
// in base 10 (surrounding whitespace, a sign, 32-bit range). Plain runs of
// one to nine ASCII digits, what address texts nearly always are, are read
// directly (they cannot overflow); everything else goes to QString::toInt.
int parse_decimal(const QString &text, int from, int len, bool *ok)
{
    if (len >= 1 && len <= 9) {
        const QChar *p = text.constData() + from;
        int value = 0;
        int i = 0;
        for (; i < len; ++i) {
            const ushort c = p[i].unicode();
            if (c < '0' || c > '9')
                break;
            value = value * 10 + int(c - '0');
        }
        if (i == len) {
            *ok = true;
            return value;
        }
    }
    if (from == 0 && len == text.size())
        return text.toInt(ok, 10);
    return text.mid(from, len).toInt(ok, 10);
}
} // namespace

int StringAddressToInt(int reg_kind, const QString &address_text)
{
    bool ok = false;
    if (plckinds::is_bit_addressed(reg_kind)) {
        // Bit-addressed kinds: "byte.bit", exactly one point (two parts, either may be
        // empty and then fails to parse); the bit part is not range-checked.
        const int dot = address_text.indexOf(QLatin1Char('.'));
        if (dot < 0 || address_text.indexOf(QLatin1Char('.'), dot + 1) >= 0)
            return -1;
        const int byte = parse_decimal(address_text, 0, dot, &ok);
        if (!ok)
            return -1;
        const int bit = parse_decimal(address_text, dot + 1, address_text.size() - dot - 1, &ok);
        if (!ok)
            return -1;
        // An address that does not fit in 32 bits is no address (it would
        // otherwise wrap onto some other, valid-looking one).
        const qint64 address = qint64(byte) * 8 + bit;
        return address >= INT_MIN && address <= INT_MAX ? int(address) : -1;
    }
    const int value = parse_decimal(address_text, 0, address_text.size(), &ok);
    return ok ? value : -1;
}

extern "C" int PLCAddressChangeIntef(int reg_kind, const QString &address_text)
{
    return StringAddressToInt(reg_kind, address_text);
}

// ---------------------------------------------------------------- registration

int BlockLimitForKind(int reg_kind, int max_read_units)
{
    return plckinds::block_limit(reg_kind, max_read_units);
}

extern "C" int AddListReadVar(RW_VAR *var)
{
    PLC_driver.read_list.append(*var);
    return PLC_driver.read_list.size();
}

extern "C" int AddListWriteVar(RW_VAR *var)
{
    {
        DriverLock lock(PLC_driver.list_mutex);
        if (PLC_driver.write_list.size() < kListCap)
            PLC_driver.write_list.append(*var);
    }
    return locked_size(PLC_driver.write_list);
}

extern "C" int AddListOnceReadVar(RW_VAR *var, int flag)
{
    Communication_Protocol &d = PLC_driver;
    if (flag == 1) {
        {
            DriverLock lock(d.list_mutex);
            d.once_read_list.append(*var);
        }
        return locked_size(d.once_read_list);
    }

    // Without a communication-info record there is no station or unit limit
    // to prepare the read with: refuse it like an unparsable address.
    if (!d.com_info)
        return 0;
    const int addr = StringAddressToInt(var->reg_kind, var->address_text);
    if (addr < 0)
        return 0;
    const int station = d.com_info->station_from_address == 0 ? d.com_info->default_station : var->station;
    var->start_addr = addr;
    var->station = station;
    var->ext_param1 = 0;
    var->ext_param2 = 0;
    Communication_Protocol::update_rw_var(var);
    const int block_limit = BlockLimitForKind(var->reg_kind, effective_max_units());

    {
        DriverLock lock(d.list_mutex);
        int remaining = var->count;
        while (remaining > 0) {
            if (d.once_read_list.size() >= kListCap) {
                // The list is full, so no further chunk can be added: leave
                // the record as the remaining chunks would (start past the
                // last one, count the last one's size) without walking them.
                // An absurd count cannot keep the loop going this way.
                var->count = (remaining - 1) % block_limit + 1;
                var->start_addr = qint32(quint32(var->start_addr) + quint32(remaining));
                break;
            }
            const int chunk = std::min(remaining, block_limit);
            var->count = chunk;
            bool duplicate = false;
            for (const RW_VAR &e : std::as_const(d.once_read_list)) {
                if (e.source_type == var->source_type && e.source_id == var->source_id && e.station == var->station &&
                    e.reg_kind == var->reg_kind && e.start_addr == var->start_addr && e.count == var->count &&
                    e.link_id == var->link_id) {
                    duplicate = true;
                    break;
                }
            }
            if (!duplicate && d.once_read_list.size() < kListCap)
                d.once_read_list.append(*var);
            remaining -= chunk;
            // Addresses wrap at the top of the 32-bit range instead of overflowing.
            var->start_addr = qint32(quint32(var->start_addr) + quint32(chunk));
        }
    }
    return locked_size(d.once_read_list);
}

// ---------------------------------------------------------------- grouping

void Bubble_Sort(QList<RW_VAR> *list)
{
    // The order of the exchange sort this function stands for (ascending,
    // equal addresses keep their order) is exactly that of a stable sort,
    // which does it in n log n instead of n squared.
    if (!list || list->size() < 2)
        return;
    std::stable_sort(list->begin(), list->end(),
                     [](const RW_VAR &a, const RW_VAR &b) { return a.start_addr < b.start_addr; });
}

namespace {
// Record i of a group (start A, count C) merged with a limit of at least 2:
// it opens a request, grows the current one, or falls inside it. S and L
// follow the current request.
template <typename Sink>
inline void merge_step(int i, qint64 A, qint64 C, qint64 limit, qint64 &S, qint64 &L, Sink &sink)
{
    // A merge needs a request to extend; with none (an empty list after a
    // count-0 first record) the record opens its own.
    if (i == 0 || A >= S + limit || sink.empty()) {
        // New request: the record in pieces of at most limit units.
        for (qint64 start = A, left = C; left > 0;) {
            const qint64 piece = std::min<qint64>(left, limit);
            sink.append_record(i, qint32(start), qint32(piece));
            start += piece;
            left -= piece;
        }
    } else if (A + C > S + L) {
        // Merge: the current request grows to reach A + C; what lies beyond
        // limit goes as copies of the current request.
        const qint64 E = A + C - S; // length needed from the request's start
        sink.set_last_count(qint32(std::min<qint64>(E, limit)));
        for (qint64 start = S + limit, left = E - limit; left > 0;) {
            const qint64 piece = std::min<qint64>(left, limit);
            sink.append_copy_of_last(qint32(start), qint32(piece));
            start += piece;
            left -= piece;
        }
    }
    if (!sink.empty()) {
        S = sink.last_start();
        L = sink.last_count();
    }
}

// Merges and splits one group, already in address order. addr_at(i) and
// count_at(i) give record i's start_addr and count; the requests go to a
// sink, which holds the list being built (its last entry is the current
// request) and knows how to make a request from record i. The same code so
// serves BitVarReCreat (records straight into read_list) and
// ReCreatReadVarList (a compact index of the runtime's descriptors).
template <typename AddrAt, typename CountAt, typename Sink>
void merge_group(int size, int block_limit, AddrAt addr_at, CountAt count_at, Sink &sink)
{
    if (size <= 0)
        return;
    const int limit = block_limit < 1 ? 1 : block_limit;

    if (limit == 1) {
        // Neither merged nor split; of equal addresses the largest count wins.
        sink.append_record(0, addr_at(0), count_at(0));
        qint32 addr = addr_at(0);
        qint32 count = count_at(0);
        for (int i = 1; i < size; ++i) {
            const qint32 a = addr_at(i);
            const qint32 c = count_at(i);
            if (a != addr) {
                sink.append_record(i, a, c);
                addr = a;
                count = c;
            } else if (c > count) {
                sink.set_last_count(c);
                count = c;
            }
        }
        return;
    }

    // S and L: start and length of the current request (the last entry of
    // the list), in 64 bits so that sums near the top of the range do not
    // overflow.
    qint64 S = 0, L = 0;
    for (int i = 0; i < size; ++i)
        merge_step(i, addr_at(i), count_at(i), limit, S, L, sink);
}

// BitVarReCreat's sink: copies of the group's records, appended to read_list.
class RecordSink {
public:
    RecordSink(QList<RW_VAR> &out, const QList<RW_VAR> &group) : out_(out), group_(group) {}
    bool empty() const { return out_.isEmpty(); }
    qint32 last_start() const { return out_.last().start_addr; }
    qint32 last_count() const { return out_.last().count; }
    void set_last_count(qint32 count) { out_.last().count = count; }
    void append_record(int i, qint32 start, qint32 count) { append(group_.at(i), start, count); }
    void append_copy_of_last(qint32 start, qint32 count)
    {
        const RW_VAR last = out_.last(); // a copy: appending may move the entry
        append(last, start, count);
    }

private:
    void append(const RW_VAR &proto, qint32 start, qint32 count)
    {
        out_.append(proto);
        out_.last().start_addr = start;
        out_.last().count = count;
    }
    QList<RW_VAR> &out_;
    const QList<RW_VAR> &group_;
};

// Prefetch hints for the passes over the runtime's descriptors. A QList of
// records this size holds a pointer to each, and each text is a block of
// its own; with tens of thousands of descriptors these no longer sit in the
// caches, and a pass that waits for each in turn is bound by memory
// latency. The passes so ask for the records and texts a few steps ahead.
// The first word of a QString (Qt 5 and 6) is the address of its shared
// block: share count, then the characters. A prefetch never faults, so
// reading that word can only ever cost speed, not correctness.
const int kPrefetchAhead = 16;

inline const void *text_block(const QString &s)
{
    const void *block;
    std::memcpy(&block, &s, sizeof block);
    return block;
}

// Sets every field of r from proto, except the two texts, which r keeps.
// proto's texts are empty.
inline void assign_keeping_texts(RW_VAR &r, const RW_VAR &proto)
{
    QString name_text;
    QString address_text;
    name_text.swap(r.name_text);
    address_text.swap(r.address_text);
    r = proto;
    r.name_text.swap(name_text);
    r.address_text.swap(address_text);
}

// One parsed and converted descriptor of ReCreatReadVarList: what grouping,
// ordering and merging need, without the texts. The sort key packs the
// station (bits 47..40), the kind (39..32) and the start address with its
// sign bit flipped (31..0), so that ascending keys are ascending stations,
// then kinds, then signed addresses. A descriptor carries an 8-bit station
// and an 8-bit kind, and the conversion only maps kinds onto 2..4, so both
// fit; when the default station stands for every variable the station
// byte is simply 0.
struct ReadItem {
    quint64 key;
    qint32 count;
    qint32 index; // position in the runtime's list
};

inline quint64 read_item_key(int station_byte, int kind, qint32 start_addr)
{
    return (quint64(quint8(station_byte)) << 40) | (quint64(quint8(kind)) << 32) |
           quint64(quint32(start_addr) ^ 0x80000000u);
}
inline qint32 read_item_kind(quint64 key)
{
    return qint32((key >> 32) & 0xFFu);
}
inline qint32 read_item_station_byte(quint64 key)
{
    return qint32((key >> 40) & 0xFFu);
}
inline qint32 read_item_start(quint64 key)
{
    return qint32(quint32(key) ^ 0x80000000u);
}
// The key of the item's group: station and kind, without the address.
inline quint64 group_part(quint64 key)
{
    return key & ~quint64(0xFFFFFFFFu);
}

// Which bits of the items' keys differ: the OR and the AND of every key,
// gathered while the items are made.
struct KeyBits {
    quint64 key_or = 0;
    quint64 key_and = ~quint64(0);
    void add(quint64 key)
    {
        key_or |= key;
        key_and &= key;
    }
};

// Stable ascending sort of the items by key: equal keys keep the runtime's
// order. Short lists take std::stable_sort; longer ones a least-significant-
// digit radix sort, each pass a stable counting sort, linear in the number
// of items where a comparison sort would add a logarithmic factor.
//
// Only bits that differ between items take part: in each field of the key
// the bits above the highest one that differs are the same in every item.
// The address's low bits are cut into as few digits as fit 11 bits each
// (evenly: 18 bits make two passes of 9, not three of 8 with a last one of
// 2), then the station's and kind's low bits, joined, make the group's
// digits. Wider digits scatter into more places at once, which costs
// little up to 11 bits; a pass saved is a whole read and write of the list.
// bits must hold the OR and AND of exactly these items' keys; counts is
// room for the digit counts.
void sort_read_items(std::vector<ReadItem> &items, std::vector<ReadItem> &scratch, const KeyBits &bits,
                     std::vector<quint32> &counts)
{
    const size_t n = items.size();
    if (n < 256) {
        std::stable_sort(items.begin(), items.end(),
                         [](const ReadItem &a, const ReadItem &b) { return a.key < b.key; });
        return;
    }
    const auto width = [](quint64 mask) {
        int w = 0;
        while (w < 64 && (mask >> w) != 0)
            ++w;
        return w;
    };
    const quint64 varying = bits.key_or ^ bits.key_and;
    const int a_bits = width(varying & 0xFFFFFFFFu);
    const int k_bits = width((varying >> 32) & 0xFFu);
    const int s_bits = width((varying >> 40) & 0xFFu);
    const quint64 k_mask = (quint64(1) << k_bits) - 1;
    const quint64 s_mask = (quint64(1) << s_bits) - 1;
    // The group's differing bits, station above kind.
    const auto group_of = [=](quint64 key) { return (((key >> 40) & s_mask) << k_bits) | ((key >> 32) & k_mask); };

    struct Pass {
        int shift;
        int width;
        bool group;
    };
    Pass passes[8];
    int pass_count = 0;
    const auto add_passes = [&](int field_bits, bool group) {
        if (field_bits == 0)
            return;
        const int count = (field_bits + 10) / 11;
        const int w = (field_bits + count - 1) / count;
        for (int p = 0; p < count; ++p)
            passes[pass_count++] = {p * w, w, group};
    };
    add_passes(a_bits, false);
    add_passes(k_bits + s_bits, true);
    if (pass_count == 0)
        return; // every key is the same: the runtime's order stands

    // Every pass's counts in one read of the items.
    size_t offset_of[8];
    size_t total = 0;
    for (int p = 0; p < pass_count; ++p) {
        offset_of[p] = total;
        total += size_t(1) << passes[p].width;
    }
    counts.assign(total, 0);
    quint32 *const c0 = counts.data();
    for (const ReadItem &it : items) {
        const quint64 g = group_of(it.key);
        for (int p = 0; p < pass_count; ++p) {
            const quint64 m = (quint64(1) << passes[p].width) - 1;
            const quint64 v = passes[p].group ? g : it.key;
            ++c0[offset_of[p] + size_t((v >> passes[p].shift) & m)];
        }
    }

    scratch.resize(n);
    ReadItem *src = items.data();
    ReadItem *dst = scratch.data();
    for (int p = 0; p < pass_count; ++p) {
        const Pass pass = passes[p];
        const size_t buckets = size_t(1) << pass.width;
        const quint64 m = buckets - 1;
        quint32 *const c = c0 + offset_of[p];
        const quint64 first = ((pass.group ? group_of(src[0].key) : src[0].key) >> pass.shift) & m;
        if (c[first] == n)
            continue; // every item has this digit: the pass would not move anything
        quint32 offset = 0;
        for (size_t v = 0; v < buckets; ++v) {
            const quint32 k = c[v];
            c[v] = offset;
            offset += k;
        }
        const int shift = pass.shift;
        if (pass.group) {
            for (size_t i = 0; i < n; ++i)
                dst[c[(group_of(src[i].key) >> shift) & m]++] = src[i];
        } else {
            for (size_t i = 0; i < n; ++i)
                dst[c[(src[i].key >> shift) & m]++] = src[i];
        }
        std::swap(src, dst);
    }
    if (src != items.data())
        items.swap(scratch);
}

// One request of the rebuilt list before it becomes a record: the group
// (station and kind, as in the item key), its start and count, and the
// descriptor whose record it is a copy of.
struct PlannedRequest {
    // Left unset: the planner sizes its list ahead and writes every entry
    // it keeps, so filling the room with zeros first would be wasted.
    PlannedRequest() {}
    PlannedRequest(quint64 group_key_, qint32 start_addr_, qint32 count_, qint32 index_)
        : group_key(group_key_), start_addr(start_addr_), count(count_), index(index_)
    {
    }
    quint64 group_key; // the item key without the address
    qint32 start_addr;
    qint32 count;
    qint32 index;
};

// Where a descriptor's two texts keep their characters (see text_block):
// enough to tell whether a record already shares them, without going back
// to the descriptor.
struct TextBlocks {
    const void *name_text;
    const void *address_text;
};

// True when s keeps its characters in block. A string without a block of
// its own (raw data, in Qt 6 also the null string) is never taken as shared.
inline bool shares_block(const QString &s, const void *block)
{
    return block != nullptr && text_block(s) == block;
}

// The texts of one descriptor, for the records made from it, and the plan
// position of the last of those (that one gets them moved, not copied).
struct PlannedTexts {
    QString name_text;
    QString address_text;
    int last_use;
};

// Work buffers of ReCreatReadVarList, used only under list_mutex. They keep
// their capacity from one rebuild to the next: large buffers freed and
// allocated again on every call would be handed back to the system and
// mapped afresh each time, and those page faults cost more than the rebuild
// itself. A buffer far larger than the current call needs is released.
struct RebuildBuffers {
    std::vector<ReadItem> items;
    std::vector<ReadItem> scratch;
    std::vector<quint32> digit_counts;
    std::vector<PlannedRequest> plan;
    std::vector<TextBlocks> text_blocks; // their texts' shared blocks, by position
    std::vector<int> pending;            // records still waiting for their texts
    std::vector<int> slot_of;
    std::vector<PlannedTexts> texts;

    // Empties every buffer for a rebuild from n descriptors.
    void prepare(size_t n)
    {
        reuse(items, n);
        reuse(scratch, n);
        reuse(plan, n);
        reuse(text_blocks, n);
        reuse(pending, n);
        reuse(slot_of, n);
        reuse(texts, n);
    }

private:
    template <typename T> static void reuse(std::vector<T> &v, size_t n)
    {
        if (v.capacity() > 4 * n + 4096)
            std::vector<T>().swap(v);
        v.clear();
    }
};

RebuildBuffers &rebuild_buffers()
{
    static RebuildBuffers buffers;
    return buffers;
}

// ReCreatReadVarList's sink: plans requests over the sorted items of one
// group at a time; the records are made afterwards, in one pass.
class PlanSink {
public:
    explicit PlanSink(std::vector<PlannedRequest> &out) : out_(out) {}
    void set_group(const ReadItem *group) { group_ = group; }
    bool empty() const { return out_.empty(); }
    qint32 last_start() const { return out_.back().start_addr; }
    qint32 last_count() const { return out_.back().count; }
    void set_last_count(qint32 count) { out_.back().count = count; }
    void append_record(int i, qint32 start, qint32 count)
    {
        out_.push_back(PlannedRequest(group_part(group_[i].key), start, count, group_[i].index));
    }
    void append_copy_of_last(qint32 start, qint32 count)
    {
        PlannedRequest copy = out_.back();
        copy.start_addr = start;
        copy.count = count;
        out_.push_back(copy);
    }

private:
    std::vector<PlannedRequest> &out_;
    const ReadItem *group_ = nullptr;
};

// Plans one group of sorted items into plan, with the result of merge_group
// and PlanSink. Whether a record opens a request or extends the current one
// follows the addresses, which a branch predictor cannot guess; so the
// common case (a record that fits in one request and, extending one, stays
// within the limit) is done without branching on it: the current request
// lives in registers and is written to its slot on every step. The rest
// (a group's first record, counts below 1 or past the limit, splits, the
// limit-1 path) takes the general code.
void plan_group(const ReadItem *g, int size, int block_limit, std::vector<PlannedRequest> &plan)
{
    PlanSink sink(plan);
    sink.set_group(g);
    const int limit = block_limit < 1 ? 1 : block_limit;
    if (limit == 1) {
        merge_group(
            size, limit, [g](int i) { return read_item_start(g[i].key); }, [g](int i) { return g[i].count; }, sink);
        return;
    }
    // Room for one more request per record: a fast step adds at most one.
    size_t used = plan.size();
    plan.resize(used + size_t(size));
    PlannedRequest *slots = plan.data();
    quint64 group_key = 0;
    qint32 index = 0;
    qint64 S = 0, L = 0;
    for (int i = 0; i < size; ++i) {
        const qint64 A = read_item_start(g[i].key);
        const qint64 C = g[i].count;
        const bool open = A >= S + limit;
        const qint64 E = A + C - S;
        if (i == 0 || used == 0 || C < 1 || C > limit || (!open && E > limit)) {
            plan.resize(used);
            merge_step(i, A, C, limit, S, L, sink);
            used = plan.size();
            if (used > 0) {
                group_key = plan.back().group_key;
                index = plan.back().index;
            }
            plan.resize(used + size_t(size - i - 1));
            slots = plan.data();
            continue;
        }
        used += open ? 1 : 0;
        group_key = open ? group_part(g[i].key) : group_key;
        index = open ? g[i].index : index;
        L = open ? C : std::max(L, E);
        S = open ? A : S;
        slots[used - 1] = PlannedRequest(group_key, qint32(S), qint32(L), index);
    }
    plan.resize(used);
}

// Gives the records noted in buf.pending the texts of their descriptors,
// taken in the runtime's order: a request list is in address order, and
// copying texts in that order would visit the runtime's descriptors (and
// the share counts of their strings) at random, which for large lists
// costs more than all the rest. slot_of[i] first holds the plan position of
// the last noted record made from descriptor i (-1: none), then the
// descriptor's entry in texts. Each text is copied once and moved into its
// last record.
void give_pending_texts(const QList<HostReadVar> &descriptors, QList<RW_VAR>::iterator records,
                        const std::vector<PlannedRequest> &plan, RebuildBuffers &buf)
{
    const int host_count = descriptors.size();
    const std::vector<TextBlocks> &text_blocks = buf.text_blocks;
    const std::vector<int> &pending = buf.pending;
    std::vector<int> &slot_of = buf.slot_of;
    slot_of.assign(size_t(host_count), -1);
    for (const int k : pending)
        slot_of[size_t(plan[size_t(k)].index)] = k;
    std::vector<PlannedTexts> &texts = buf.texts;
    for (int i = 0; i < host_count; ++i) {
        if (i + kPrefetchAhead / 2 < host_count && slot_of[size_t(i + kPrefetchAhead / 2)] >= 0) {
            const TextBlocks &ahead = text_blocks[size_t(i + kPrefetchAhead / 2)];
            __builtin_prefetch(ahead.name_text, 1);
            __builtin_prefetch(ahead.address_text, 1);
        }
        const int last_use = slot_of[size_t(i)];
        if (last_use < 0)
            continue;
        const HostReadVar &h = descriptors.at(i);
        slot_of[size_t(i)] = int(texts.size());
        texts.push_back({h.name_text, h.address_text, last_use});
    }
    const size_t count = pending.size();
    for (size_t j = 0; j < count; ++j) {
        // Ahead: the texts entry of a coming record, and the share
        // counts of the texts it gives up.
        if (j + kPrefetchAhead < count)
            __builtin_prefetch(&texts[size_t(slot_of[size_t(plan[size_t(pending[j + kPrefetchAhead])].index)])]);
        if (j + kPrefetchAhead / 2 < count) {
            const RW_VAR &ahead = records[pending[j + kPrefetchAhead / 2]];
            __builtin_prefetch(text_block(ahead.name_text), 1);
            __builtin_prefetch(text_block(ahead.address_text), 1);
        }
        const int k = pending[j];
        RW_VAR &r = records[k];
        PlannedTexts &t = texts[size_t(slot_of[size_t(plan[size_t(k)].index)])];
        if (t.last_use == k) {
            r.name_text = std::exchange(t.name_text, QString());
            r.address_text = std::exchange(t.address_text, QString());
        } else {
            r.name_text = t.name_text;
            r.address_text = t.address_text;
        }
    }
    texts.clear();
}

} // namespace

void BitVarReCreat(QList<RW_VAR> *group, int block_limit)
{
    if (!group)
        return;
    RecordSink sink(PLC_driver.read_list, *group);
    merge_group(
        group->size(), block_limit, [group](int i) { return group->at(i).start_addr; },
        [group](int i) { return group->at(i).count; }, sink);
}

void WhetherGroup(int total, int limit, RW_VAR *var, QList<RW_VAR> *list)
{
    if (total <= limit || limit < 1) {
        list->append(*var);
        return;
    }
    const int pieces = total / limit + (total % limit ? 1 : 0);
    const int remainder = total % limit;
    const qint32 start = var->start_addr;
    for (int k = 0; k < pieces; ++k) {
        var->start_addr = qint32(quint32(start) + quint32(k) * quint32(limit));
        var->count = (k == pieces - 1 && remainder != 0) ? remainder : limit;
        list->append(*var);
    }
}

extern "C" int ReCreatReadVarList(QList<HostReadVar> *descriptors)
{
    Communication_Protocol &d = PLC_driver;
    {
        DriverLock lock(d.list_mutex);
        ComInfo *info = d.com_info;
        // Nothing to read, or no communication-info record to read it with:
        // the list is left empty.
        if (!descriptors || descriptors->isEmpty() || !info) {
            d.read_list = QList<RW_VAR>();
            return 0;
        }

        const int n = effective_max_units();
        d.cycle_count = 0;
        info->cycle_done = 0;
        const bool own_station = info->station_from_address != 0;

        RW_VAR work;
        work.source_type = 0;
        work.source_id = -1;
        work.rw_flag = 0;
        work.link_mode = info->link_mode;
        work.link_id = info->local_link_id;
        work.status = 0;
        work.ext_param1 = 0;
        work.ext_param2 = 0;

        // Parse and convert every descriptor into a compact item.
        const int host_count = descriptors->size();
        RebuildBuffers &buf = rebuild_buffers();
        buf.prepare(size_t(host_count));
        std::vector<ReadItem> &items = buf.items;
        items.reserve(size_t(host_count));
        std::vector<TextBlocks> &text_blocks = buf.text_blocks;
        text_blocks.resize(size_t(host_count));
        KeyBits key_bits;
        for (int i = 0; i < host_count; ++i) {
            // A step of this pass is short: it asks further ahead.
            if (i + 4 * kPrefetchAhead < host_count)
                __builtin_prefetch(&descriptors->at(i + 4 * kPrefetchAhead));
            if (i + 2 * kPrefetchAhead < host_count)
                __builtin_prefetch(text_block(descriptors->at(i + 2 * kPrefetchAhead).address_text));
            const HostReadVar &h = descriptors->at(i);
            text_blocks[size_t(i)] = {text_block(h.name_text), text_block(h.address_text)};
            const int addr = StringAddressToInt(h.reg_kind, h.address_text);
            if (addr < 0)
                continue;
            work.station = own_station ? h.station : info->default_station;
            work.start_addr = addr;
            work.count = h.count;
            work.reg_kind = h.reg_kind;
            Communication_Protocol::update_rw_var(&work);
            const quint64 key = read_item_key(own_station ? work.station : 0, work.reg_kind, work.start_addr);
            items.push_back({key, work.count, i});
            key_bits.add(key);
        }

        // Groups by station, then kind, both ascending; inside a group by
        // address, equal addresses in the runtime's order. This is the order
        // of grouping into per-station, per-kind lists in the runtime's order
        // and sorting each with Bubble_Sort, done as one stable sort.
        sort_read_items(items, buf.scratch, key_bits, buf.digit_counts);

        // Merge and split each group into planned requests.
        std::vector<PlannedRequest> &plan = buf.plan;
        for (size_t first = 0; first < items.size();) {
            const quint64 group = group_part(items[first].key);
            size_t end = first + 1;
            while (end < items.size() && group_part(items[end].key) == group)
                ++end;
            const ReadItem *g = items.data() + first;
            plan_group(g, int(end - first), BlockLimitForKind(read_item_kind(g->key), n), plan);
            first = end;
        }

        // The records, in plan order. The records of the previous list are
        // overwritten in place (a list the runtime shares is left to it):
        // freeing tens of thousands of records and allocating as many again
        // costs more than the rebuild itself.
        QList<RW_VAR> &out = d.read_list;
        const int wanted = int(plan.size());
        if (!out.isDetached())
            out = QList<RW_VAR>();
        if (out.size() > wanted)
            out.erase(out.begin() + wanted, out.end());
        out.reserve(wanted);
        while (out.size() < wanted)
            out.append(work);
        const QList<RW_VAR>::iterator records = out.begin();

        // First every field but the texts. A record that already shares
        // both texts with its descriptor (a list rebuilt from the same
        // descriptors) keeps them; the others are noted.
        std::vector<int> &pending = buf.pending;
        for (int k = 0; k < wanted; ++k) {
            if (k + kPrefetchAhead < wanted) {
                __builtin_prefetch(&text_blocks[size_t(plan[size_t(k + kPrefetchAhead)].index)]);
                __builtin_prefetch(&records[k + kPrefetchAhead], 1);
            }
            const PlannedRequest &p = plan[size_t(k)];
            RW_VAR &r = records[k];
            assign_keeping_texts(r, work);
            r.station = own_station ? read_item_station_byte(p.group_key) : info->default_station;
            r.reg_kind = read_item_kind(p.group_key);
            r.start_addr = p.start_addr;
            r.count = p.count;
            const TextBlocks &blocks = text_blocks[size_t(p.index)];
            if (!shares_block(r.name_text, blocks.name_text) || !shares_block(r.address_text, blocks.address_text))
                pending.push_back(k);
        }

        // Then the texts of the noted records.
        if (!pending.empty())
            give_pending_texts(*descriptors, records, plan, buf);
    }
    return locked_size(d.read_list);
}
