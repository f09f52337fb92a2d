// Internal routines of plcdriver. Not exported from the shared library; the
// unit tests link the static build and reach them through this header.
#ifndef PLCDRIVER_DRIVER_INTERNAL_H
#define PLCDRIVER_DRIVER_INTERNAL_H

#include "Communication_Protocol.h"
#include "Register_Kinds.h"

#include <QDateTime>

// What CheckGetData makes of a reply.
enum ReplyVerdict : int {
    kReplyRejected = 0,       // it does not belong to the request in flight
    kReplyStore = 1,          // it belongs to a read: store its data
    kReplyNothingToStore = 2, // it belongs to a write, or to a broadcast
};

// ---- records and return codes (Communication_Protocol.cpp) ----

// Copies fields source_type .. ext_param2 into dst and clears dst.data.
void passRetValue(const RW_VAR &src, RW_VAR &dst);

// True when the station is switched off.
bool Ethernetcontains(int station);

// Driver return code of an outcome number (0 good .. 7), 200 for others.
int GetDriverReturnValue(int outcome);
// base + 1 + source_type for requester kinds 1..11, base + 1 otherwise,
// taken from the variable of the request in flight.
int SwitchErrorReturn(int base);
// Judge a reply to the request in flight; return a driver return code.
int DealDataOfLocalArea(QByteArray *reply, int length);
int DealDataOfRemoteArea(QByteArray *reply, int length);

// One debug log line: "yyyy.MM.dd.hh:mm:ss.z:message", z without leading zeros.
QString debug_log_line(const QDateTime &when, const QString &message);

// ---- set-up and variable lists (Func_Initi.cpp) ----

// Address text to a number in the unit of the kind; -1 when it does not parse.
int StringAddressToInt(int reg_kind, const QString &address_text);
// Stable ascending sort by start_addr.
void Bubble_Sort(QList<RW_VAR> *list);
// Merges and splits one sorted station-and-kind group into read_list.
void BitVarReCreat(QList<RW_VAR> *group, int block_limit);
// Splits one variable into pieces of at most limit units.
void WhetherGroup(int total, int limit, RW_VAR *var, QList<RW_VAR> *list);
// Per-request unit limit for a converted kind, from max_read_units.
int BlockLimitForKind(int reg_kind, int max_read_units);

// ---- checks (Func_Check.cpp) ----

quint16 CalSUM(unsigned char *buf, quint16 len);
quint16 CalCRC(const unsigned char *buf, quint16 len);
int CalLRC(unsigned char *buf, quint16 len);
quint16 CalXOR(unsigned char *buf, quint16 len);
int DigitalToASCII(int value);
int ASCIIToDigital(int ch);
// A ReplyVerdict.
int CheckGetData(QByteArray *reply, int length);

// ---- frame builders (Func_Remote.cpp, Func_Read.cpp, Func_Write.cpp) ----

void Remote_ReadVar(RW_VAR *var);
void Remote_WriteVar(RW_VAR *var);
void read_register(const RW_VAR *var);
void write_register(RW_VAR *var);
void write_analog(RW_VAR *var);
// Modbus TCP helpers shared by the read and write builders: write the MBAP
// header, unit identifier and starting address into frame_buf, and queue the
// first frame_len bytes of frame_buf (advancing the station's transaction id).
void write_mbap(int station, int length_field, quint32 address);
// The MBAP length field counts the bytes of a frame after its first six.
const int kMbapLengthCounted = 6;
// Data bytes of the reply to a read of count units of a kind: whole bytes of
// bits for the bit kinds, two per register for the register kinds that name
// their class, none for the others (they are converted before being read).
// Wraps in 32 bits for absurd counts.
quint32 read_data_len(int reg_kind, quint32 count);
void queue_modbus_request(int frame_len, int reply_len, int reply_header_len, int data_len, const RW_VAR &var);

// ---- mirror (Func_GetOrSetData.cpp) ----

// Upper 32 bits of a mirror key: station in bits 31..24, class in 23..16.
quint32 mirror_key_upper(int station, int cls);
// Full mirror key of an element address (sign-extended into the upper word).
quint64 mirror_key(int station, int cls, qint32 address);
void write_data_to_local(const RW_VAR *var);

// ---- reply storage (Func_DealData.cpp) ----

void save_to_local_data_erea(QByteArray *reply);
void SpecialRegisterSave(QByteArray *reply);
void SpecialRegisterSaveByte(QByteArray *reply);

// ---- small shared helpers ----

// Byte i of an array, or 0 outside it: the driver never reads past a buffer.
inline uchar byte_at(const QByteArray &a, int i)
{
    return (i >= 0 && i < a.size()) ? uchar(a.constData()[i]) : uchar(0);
}

// comm_failed is written on the communication thread and read by runtime
// threads in SetRegisterData; access it atomically.
inline bool comm_failed_get()
{
    return __atomic_load_n(&PLC_driver.comm_failed, __ATOMIC_ACQUIRE);
}
inline void comm_failed_set(bool value)
{
    __atomic_store_n(&PLC_driver.comm_failed, value, __ATOMIC_RELEASE);
}

// max_read_units as the block-cutting code uses it: at least 1.
inline int effective_max_units()
{
    const int n = PLC_driver.com_info ? PLC_driver.com_info->max_read_units : 1;
    return n < 1 ? 1 : n;
}

#endif // PLCDRIVER_DRIVER_INTERNAL_H
