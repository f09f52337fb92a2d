// The driver object, its records and helpers, the set-up entry points and
// station enabling.
#include <gtest/gtest.h>

#include "driver_fixture.h"

#include <climits>
#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

namespace {

class DriverObject : public DriverTest {};

} // namespace

// ---------------------------------------------------------------- kinds

TEST(RegisterKinds, ClassOfEveryKind)
{
    const int expected[15] = {0, 1, 2, 3, 4, 4, 2, 3, 4, 2, 3, 4, 2, 3, 4};
    for (int kind = 0; kind < 15; ++kind)
        EXPECT_EQ(Communication_Protocol::get_plc_reg(kind), expected[kind]) << "kind " << kind;
}

TEST(RegisterKinds, ClassOfOtherValuesIsTheValue)
{
    for (int value : {15, -1, 1000, INT_MIN, INT_MAX})
        EXPECT_EQ(Communication_Protocol::get_plc_reg(value), value) << value;
}

TEST(RegisterKinds, AddressOffsets)
{
    const struct {
        qint32 cls;
        qint32 offset;
    } cases[] = {{0, 0x6000}, {1, 0xA000}, {2, 0x8000}, {3, 0xA000}, {4, 0}, {-1, 0}, {14, 0}, {INT32_MIN, 0}};
    for (const auto &c : cases)
        EXPECT_EQ(Communication_Protocol::get_offset_add(c.cls), c.offset) << "class " << c.cls;
}

// ---------------------------------------------------------------- unit conversion

namespace {

struct Conversion {
    const char *what;
    int kind, start, count;          // before
    int to_kind, to_start, to_count; // after update_rw_var
};

std::ostream &operator<<(std::ostream &os, const Conversion &c)
{
    return os << c.what;
}

const Conversion kConversions[] = {
    // Bit kinds to bytes, the kind kept.
    {"bits_13_to_17_span_bytes_1_and_2", 0, 13, 5, 0, 1, 2},
    {"a_whole_coil_byte", 1, 16, 8, 1, 2, 1},
    {"no_bits_in_a_byte", 0, 0, 0, 0, 0, 0},
    {"negative_bit_count", 0, 0, -4, 0, 0, 0},
    // Bit in a word to class-4 words.
    {"bit_35_is_in_word_2", 5, 35, 1, 4, 2, 1},
    {"bits_15_and_16_span_words_0_and_1", 5, 15, 2, 4, 0, 2},
    {"negative_bit_in_word_count", 5, 0, -20, 4, 0, -1},
    // Bytes to words of their class; the count is halved toward zero.
    {"class_2_bytes", 6, 3, 2, 2, 1, 2},
    {"class_3_bytes", 7, 4, 2, 3, 2, 1},
    {"class_4_byte", 8, 5, 1, 4, 2, 1},
    {"negative_byte_count", 6, 0, -4, 2, 0, -1},
    // 32-bit values: the address doubled, the count only made even.
    {"dwords_double_the_address", 10, 5, 3, 3, 10, 4},
    {"an_even_dword_count_stays", 9, 1, 2, 2, 2, 2},
    // 64-bit values: the address times 4, the count only a multiple of 4.
    {"qwords_quadruple_the_address", 13, 2, 1, 3, 8, 4},
    {"qword_count_rounds_up", 14, 1, 5, 4, 4, 8},
    // Word kinds and values that are no kind are left as they are.
    {"input_registers", 2, 123, 7, 2, 123, 7},
    {"holding_registers", 3, 123, 7, 3, 123, 7},
    {"class_4_words", 4, 123, 7, 4, 123, 7},
    {"kind_15", 15, 123, 7, 15, 123, 7},
    {"kind_minus_1", -1, 123, 7, -1, 123, 7},
    {"kind_99", 99, 123, 7, 99, 123, 7},
};

class UnitConversion : public ::testing::TestWithParam<Conversion> {};

} // namespace

TEST_P(UnitConversion, ConvertsKindStartAndCountOnly)
{
    const Conversion &c = GetParam();
    RW_VAR v = make_var(c.kind, c.start, c.count, 3);
    v.name_text = QStringLiteral("n");
    Communication_Protocol::update_rw_var(&v);
    EXPECT_EQ(v.reg_kind, c.to_kind);
    EXPECT_EQ(v.start_addr, c.to_start);
    EXPECT_EQ(v.count, c.to_count);
    EXPECT_EQ(v.station, 3);
    EXPECT_EQ(v.name_text, QStringLiteral("n"));
}

INSTANTIATE_TEST_SUITE_P(Kinds, UnitConversion, ::testing::ValuesIn(kConversions),
                         [](const ::testing::TestParamInfo<Conversion> &p) { return std::string(p.param.what); });

// ---------------------------------------------------------------- result record

TEST(ResultRecord, PassRetValueCopiesFieldsButNotData)
{
    RW_VAR src;
    src.source_type = 1;
    src.source_id = 2;
    src.rw_flag = 3;
    src.link_mode = 4;
    src.link_id = 5;
    src.status = 6;
    src.name_text = QStringLiteral("name");
    src.address_text = QStringLiteral("40.1");
    src.reg_kind = 7;
    src.start_addr = 8;
    src.station = 9;
    src.count = 10;
    src.ext_param1 = 11;
    src.ext_param2 = 12;
    src.data = QByteArray("\x01\x02", 2);

    RW_VAR dst;
    dst.data = QByteArray("old");
    passRetValue(src, dst);
    EXPECT_EQ(dst.source_type, 1);
    EXPECT_EQ(dst.source_id, 2);
    EXPECT_EQ(dst.rw_flag, 3);
    EXPECT_EQ(dst.link_mode, 4);
    EXPECT_EQ(dst.link_id, 5);
    EXPECT_EQ(dst.status, 6);
    EXPECT_EQ(dst.name_text, QStringLiteral("name"));
    EXPECT_EQ(dst.address_text, QStringLiteral("40.1"));
    EXPECT_EQ(dst.reg_kind, 7);
    EXPECT_EQ(dst.start_addr, 8);
    EXPECT_EQ(dst.station, 9);
    EXPECT_EQ(dst.count, 10);
    EXPECT_EQ(dst.ext_param1, 11);
    EXPECT_EQ(dst.ext_param2, 12);
    EXPECT_TRUE(dst.data.isEmpty());
    EXPECT_EQ(src.data.size(), 2); // the source keeps its data
}

// ---------------------------------------------------------------- records

TEST(Records, ComInfoKeepsTheHostLayout)
{
    EXPECT_EQ(offsetof(ComInfo, max_read_units), 16u);
    EXPECT_EQ(offsetof(ComInfo, default_station), 24u);
    EXPECT_EQ(offsetof(ComInfo, retry_limit), 28u);
    EXPECT_EQ(offsetof(ComInfo, retry_count), 32u);
    EXPECT_EQ(offsetof(ComInfo, station_from_address), 36u);
    EXPECT_EQ(offsetof(ComInfo, field40), 40u);
    EXPECT_EQ(offsetof(ComInfo, replies_expected), 44u);
    EXPECT_EQ(offsetof(ComInfo, replies_received), 48u);
    EXPECT_EQ(offsetof(ComInfo, field52), 52u);
    EXPECT_EQ(offsetof(ComInfo, link_mode), 56u);
    EXPECT_EQ(offsetof(ComInfo, local_link_id), 60u);
    EXPECT_EQ(offsetof(ComInfo, write_mode), 64u);
    EXPECT_EQ(offsetof(ComInfo, cycle_done), 68u);
    EXPECT_EQ(offsetof(ComInfo, host_handle), 72u);
    EXPECT_EQ(sizeof(ComInfo), 76u);
}

TEST(Records, DriverMembersInDeclarationOrder)
{
    auto d = std::make_unique<Communication_Protocol>();
    const void *order[] = {&d->com_info,          &d->read_list,       &d->write_list,  &d->once_read_list,
                           &d->spare_list,        &d->request_queue,   &d->extend_list, &d->write_done_cb,
                           &d->read_done_cb,      &d->list_mutex,      &d->area_mutex,  &d->station_mutex,
                           &d->disabled_stations, &d->ret_var,         &d->last_list,   &d->write_burst,
                           &d->once_burst,        &d->cycle_count,     &d->comm_failed, &d->spare_flag,
                           &d->frame_buf,         &d->transaction_ids, &d->bit_mirror,  &d->word_mirror};
    for (size_t i = 1; i < sizeof order / sizeof order[0]; ++i)
        EXPECT_LT(order[i - 1], order[i]) << "member " << i;
    EXPECT_EQ(sizeof d->frame_buf, 1024u);
    EXPECT_EQ(sizeof d->transaction_ids / sizeof d->transaction_ids[0], 256u);
}

TEST(Records, ConstructorDefaults)
{
    auto d = std::make_unique<Communication_Protocol>();
    EXPECT_EQ(d->com_info, nullptr);
    EXPECT_TRUE(d->read_list.isEmpty());
    EXPECT_TRUE(d->write_list.isEmpty());
    EXPECT_TRUE(d->once_read_list.isEmpty());
    EXPECT_TRUE(d->spare_list.isEmpty());
    EXPECT_TRUE(d->request_queue.isEmpty());
    EXPECT_TRUE(d->extend_list.isEmpty());
    EXPECT_EQ(d->write_done_cb, nullptr);
    EXPECT_EQ(d->read_done_cb, nullptr);
    EXPECT_TRUE(d->disabled_stations.isEmpty());
    EXPECT_TRUE(d->ret_var.name_text.isEmpty());
    EXPECT_TRUE(d->ret_var.address_text.isEmpty());
    EXPECT_TRUE(d->ret_var.data.isEmpty());
    EXPECT_EQ(d->last_list, 100);
    EXPECT_EQ(d->write_burst, 0);
    EXPECT_EQ(d->once_burst, 0);
    EXPECT_EQ(d->cycle_count, 0);
    EXPECT_FALSE(d->comm_failed);
    EXPECT_FALSE(d->spare_flag);
    for (int i = 0; i < 256; ++i)
        EXPECT_EQ(d->transaction_ids[i], 0) << i;
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(d->frame_buf[i], 0) << i; // starts zeroed rather than undefined
    EXPECT_TRUE(d->bit_mirror.isEmpty());
    EXPECT_TRUE(d->word_mirror.isEmpty());
}

TEST(Records, MutexesAreNotRecursive)
{
    auto d = std::make_unique<Communication_Protocol>();
    for (QMutex *m : {&d->list_mutex, &d->area_mutex, &d->station_mutex}) {
        m->lock();
        EXPECT_FALSE(m->tryLock()); // a second lock from the same thread is refused
        m->unlock();
        EXPECT_TRUE(m->tryLock());
        m->unlock();
    }
}

namespace {
int g_destructor_callbacks = 0;
void count_write_done(int, int, int, int)
{
    ++g_destructor_callbacks;
}
void count_read_done(QList<RW_VAR> *, int, int)
{
    ++g_destructor_callbacks;
}
} // namespace

TEST(Records, DestructorReleasesEverythingAndCallsNoCallback)
{
    g_destructor_callbacks = 0;
    auto d = std::make_unique<Communication_Protocol>();
    d->write_done_cb = count_write_done;
    d->read_done_cb = count_read_done;
    RW_VAR v = make_var(4, 1, 1, 0);
    v.data = QByteArray(100, 'x');
    d->read_list.append(v);
    d->write_list.append(v);
    d->once_read_list.append(v);
    Protocol p;
    p.var = v;
    p.frame = QByteArray(12, '\0');
    d->request_queue.append(p);
    d->bit_mirror.insert(1, 1);
    d->word_mirror.insert(2, 3);
    d->disabled_stations.insert(3, 0);
    d.reset(); // the address sanitizer build reports any leak of these
    EXPECT_EQ(g_destructor_callbacks, 0);
}

// ---------------------------------------------------------------- set-up

TEST_F(DriverObject, SetComInfoClampsMaxReadUnits)
{
    const struct {
        int in, out;
    } cases[] = {{120, 120}, {121, 100}, {1000, 100}, {0, 0}, {-5, -5}, {100, 100}, {1, 1}};
    for (const auto &c : cases) {
        ComInfo rec = make_com_info();
        rec.max_read_units = c.in;
        SetComInfo(&rec);
        EXPECT_EQ(rec.max_read_units, c.out) << "from " << c.in;
        EXPECT_EQ(PLC_driver.com_info, &rec);
    }
    PLC_driver.com_info = &info;
}

TEST_F(DriverObject, SetComInfoClearsTheTwoFieldsOnly)
{
    ComInfo rec = make_com_info();
    rec.field40 = 1234;
    rec.field52 = -9;
    rec.host_field1 = 11;
    rec.host_field6 = 66;
    rec.retry_count = 5;
    rec.cycle_done = 1;
    SetComInfo(&rec);
    EXPECT_EQ(rec.field40, 0);
    EXPECT_EQ(rec.field52, 0);
    EXPECT_EQ(rec.host_field1, 11);
    EXPECT_EQ(rec.host_field6, 66);
    EXPECT_EQ(rec.retry_count, 5);
    EXPECT_EQ(rec.cycle_done, 1);
    PLC_driver.com_info = &info;
}

TEST_F(DriverObject, SetComInfoAgainReplacesThePointerAndResetsNothingElse)
{
    RW_VAR v = make_var(4, 1, 1, 0);
    AddListReadVar(&v);
    AddListWriteVar(&v);
    PLC_driver.word_mirror.insert(5, 6);
    ComInfo second = make_com_info();
    second.max_read_units = 500;
    second.field40 = 3;
    SetComInfo(&second);
    EXPECT_EQ(PLC_driver.com_info, &second);
    EXPECT_EQ(second.max_read_units, 100);
    EXPECT_EQ(second.field40, 0);
    EXPECT_EQ(PLC_driver.read_list.size(), 1);
    EXPECT_EQ(PLC_driver.write_list.size(), 1);
    EXPECT_EQ(PLC_driver.word_mirror.value(5), 6);
    PLC_driver.com_info = &info;
}

TEST_F(DriverObject, FlashLocalRegisterStoresTheAreasInArgumentOrder)
{
    int bits = 0, words = 0, third = 0;
    FlashLocalRegister(&bits, &words, &third);
    EXPECT_EQ(LB, &bits);
    EXPECT_EQ(LW, &words);
    EXPECT_EQ(RWI, &third);
    FlashLocalRegister(nullptr, &third, &bits);
    EXPECT_EQ(LB, nullptr);
    EXPECT_EQ(LW, &third);
    EXPECT_EQ(RWI, &bits);
}

namespace {
void write_a(int, int, int, int) {}
void write_b(int, int, int, int) {}
void read_a(QList<RW_VAR> *, int, int) {}
void read_b(QList<RW_VAR> *, int, int) {}
} // namespace

TEST_F(DriverObject, RegistCallBackFuncIntfStoresAndReplacesBoth)
{
    RegistCallBackFuncIntf(write_a, read_a);
    EXPECT_EQ(PLC_driver.write_done_cb, &write_a);
    EXPECT_EQ(PLC_driver.read_done_cb, &read_a);
    RegistCallBackFuncIntf(write_b, read_b);
    EXPECT_EQ(PLC_driver.write_done_cb, &write_b);
    EXPECT_EQ(PLC_driver.read_done_cb, &read_b);
}

// ---------------------------------------------------------------- stations

TEST_F(DriverObject, SwitchingAStationOff)
{
    EnCommStation(3, 0);
    EXPECT_TRUE(Ethernetcontains(3));
    EXPECT_FALSE(Ethernetcontains(4));
    EXPECT_EQ(PLC_driver.disabled_stations.value(3, -1), 0);
}

TEST_F(DriverObject, OffTwiceThenOnOnce)
{
    EnCommStation(3, 0);
    EnCommStation(3, 0);
    EXPECT_EQ(PLC_driver.disabled_stations.size(), 1);
    EnCommStation(3, 1);
    EXPECT_FALSE(Ethernetcontains(3));
    EXPECT_TRUE(PLC_driver.disabled_stations.isEmpty());
}

TEST_F(DriverObject, OtherEnableValuesChangeNothing)
{
    EnCommStation(3, 2);
    EXPECT_FALSE(Ethernetcontains(3));
    EnCommStation(4, 0);
    EnCommStation(4, 2);
    EnCommStation(4, -1);
    EXPECT_TRUE(Ethernetcontains(4));
    EXPECT_EQ(PLC_driver.disabled_stations.size(), 1);
}

TEST_F(DriverObject, NegativeStationSwitchesEveryStationOn)
{
    for (int enable : {0, 1, 7}) {
        EnCommStation(1, 0);
        EnCommStation(2, 0);
        EnCommStation(200, 0);
        EnCommStation(-1, enable);
        EXPECT_TRUE(PLC_driver.disabled_stations.isEmpty()) << "enable " << enable;
        EXPECT_FALSE(Ethernetcontains(1));
        EXPECT_FALSE(Ethernetcontains(200));
    }
}

TEST_F(DriverObject, EnableEthernetIsTheSameOperation)
{
    EnableEthernet(5, 0);
    EXPECT_TRUE(Ethernetcontains(5));
    EXPECT_EQ(PLC_driver.disabled_stations.keys(), QList<int>{5});
    EnableEthernet(5, 1);
    EXPECT_FALSE(Ethernetcontains(5));
    EnableEthernet(6, 0);
    EnableEthernet(-3, 0);
    EXPECT_FALSE(Ethernetcontains(6));
}

TEST_F(DriverObject, AnyStationNumberCanBeSwitched)
{
    EnCommStation(0, 0);
    EnCommStation(100000, 0);
    EXPECT_TRUE(Ethernetcontains(0));
    EXPECT_TRUE(Ethernetcontains(100000));
    EXPECT_FALSE(Ethernetcontains(-1));
}
