// plcdriver: PLC communication driver loaded by an HMI runtime.
//
// This is the chief header. It declares the records shared with the runtime,
// the driver object and the exported C-linkage entry points. The runtime owns
// the socket and the threads; the driver composes request frames, checks the
// replies and keeps a local mirror of the PLC's registers.
//
// Byte order: multi-byte fields on the wire are big-endian; values in the
// runtime's buffers are little-endian (each 16-bit register low byte first,
// longer values as their registers in ascending address order).
#ifndef PLCDRIVER_COMMUNICATION_PROTOCOL_H
#define PLCDRIVER_COMMUNICATION_PROTOCOL_H

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QtGlobal>

#if defined(PLCDRIVER_BUILDING_SHARED)
#define PLCDRIVER_EXPORT __attribute__((visibility("default")))
#else
#define PLCDRIVER_EXPORT
#endif

// Register kinds (RW_VAR::reg_kind). A kind names one of five register
// classes and the unit of its address and count:
//   0 discrete inputs (bits, class 0)      1 coils (bits, class 1)
//   2 input registers (words, class 2)     3 holding registers (class 3)
//   4 holding registers without offset (class 4)
//   5 bit inside a class-4 word            6/7/8 byte inside class 2/3/4
//   9/10/11 32-bit value in class 2/3/4    12/13/14 64-bit value in 2/3/4
enum PlcRegKind {
    REG_KIND_DISCRETE_INPUT = 0,
    REG_KIND_COIL = 1,
    REG_KIND_INPUT_REGISTER = 2,
    REG_KIND_HOLDING_REGISTER = 3,
    REG_KIND_WORD = 4,
    REG_KIND_WORD_BIT = 5,
    REG_KIND_BYTE_2 = 6,
    REG_KIND_BYTE_3 = 7,
    REG_KIND_BYTE_4 = 8,
    REG_KIND_DWORD_2 = 9,
    REG_KIND_DWORD_3 = 10,
    REG_KIND_DWORD_4 = 11,
    REG_KIND_QWORD_2 = 12,
    REG_KIND_QWORD_3 = 13,
    REG_KIND_QWORD_4 = 14
};

// One PLC variable, or a block of registers, to read or write.
struct RW_VAR {
    qint32 source_type = 0; // runtime's kind of requester (1..11 pick error codes)
    qint32 source_id = 0;   // runtime's identifier of the requester
    qint32 rw_flag = 0;     // 1 for a write built by SetRegisterData
    qint32 link_mode = 0;   // link_mode of the ComInfo when the record was made
    qint32 link_id = 0;     // local_link_id of the ComInfo when the record was made
    qint32 status = 0;      // -1 while a cyclic read is in flight; return code in ret_var
    QString name_text;      // runtime's text, carried and never interpreted
    QString address_text;   // PLC address as text
    qint32 reg_kind = 0;    // register kind 0..14
    qint32 start_addr = 0;  // start address in the unit of the kind
    qint32 station = 0;     // PLC station (unit identifier)
    qint32 count = 0;       // number of units in the unit of the kind
    qint32 ext_param1 = 0;  // -1/-2 mark the read of a bit/byte read-modify-write
    qint32 ext_param2 = 0;  // carried verbatim in the remote frame
    QByteArray data;        // bytes to write; cleared in the result record
};

// One queued request: the frame to send and what its reply must look like.
struct Protocol {
    QByteArray frame;            // request bytes
    qint32 frame_len = 0;        // length of frame
    qint32 reply_len = 0;        // expected reply length; -1 accepts any length
    qint32 reply_header_len = 0; // bytes in front of the data in the reply
    qint32 data_len = 0;         // data bytes expected in the reply
    RW_VAR var;                  // copy of the variable the request was built for
    qint32 spare1 = 0;
    qint32 spare2 = 0;
    qint32 spare3 = 0;
};

// Extension record; the driver keeps an (unused) list of them.
struct EXTENDVAR {
    qint32 field1 = 0;
    qint32 field2 = 0;
    qint32 field3 = 0;
    QByteArray data;
};

// The runtime's communication-info record. Owned by the runtime, shared with
// the driver through SetComInfo. The field order is the runtime's layout.
struct ComInfo {
    qint32 host_field1;
    qint32 host_field2;
    qint32 host_field3;
    qint32 host_field4;
    qint32 max_read_units; // largest number of units in one request
    qint32 host_field6;
    qint32 default_station;      // station of every variable when station_from_address is 0
    qint32 retry_limit;          // failed replies tolerated per request
    qint32 retry_count;          // consecutive failed replies (driver counts and resets)
    qint32 station_from_address; // non-zero: each variable carries its own station
    qint32 field40;              // cleared by SetComInfo
    qint32 replies_expected;     // good replies the request in flight needs
    qint32 replies_received;     // good replies counted for the request in flight
    qint32 field52;              // cleared by SetComInfo
    qint32 link_mode;            // 0: Modbus TCP; otherwise the remote frame
    qint32 local_link_id;        // link id handled as the local area
    qint32 write_mode;           // 2: writes go to the PLC; otherwise mirror only
    qint32 cycle_done;           // raised when the queue drained or a pass completed
    qint32 host_handle;          // first argument of write_done_cb
};

// The runtime's read-variable descriptor handed to ReCreatReadVarList.
struct HostReadVar {
    quint8 host_flag = 0;  // not read by the driver
    quint8 reg_kind = 0;   // register kind code
    quint8 station = 0;    // PLC station number
    quint8 host_byte = 0;  // not read by the driver
    qint32 host_value = 0; // not read by the driver
    QString address_text;
    QString name_text;
    qint32 count = 0; // units in the unit of the kind
};

typedef void (*WriteDoneCallback)(int host_handle, int source_type, int source_id, int result);
typedef void (*ReadDoneCallback)(QList<RW_VAR> *list, int source_type, int flag);

// The driver state. Exactly one instance exists: PLC_driver.
class Communication_Protocol {
public:
    Communication_Protocol();
    ~Communication_Protocol();
    Communication_Protocol(const Communication_Protocol &) = delete;
    Communication_Protocol &operator=(const Communication_Protocol &) = delete;

    // Register class (0..4) of a kind; other values are returned unchanged.
    static qint32 get_plc_reg(qint32 kind);
    // Converts a variable from its kind's units to whole bytes or words of
    // its class, in place (bit kinds 0 and 1 keep their kind, in bytes).
    static void update_rw_var(RW_VAR *var);
    // Modbus address offset of a class: 0x6000, 0xA000, 0x8000, 0xA000 for
    // 0..3, 0 for everything else.
    static qint32 get_offset_add(qint32 cls);

    ComInfo *com_info;
    QList<RW_VAR> read_list;      // cyclic reads, served round-robin
    QList<RW_VAR> write_list;     // pending writes, oldest first
    QList<RW_VAR> once_read_list; // one-shot reads, oldest first
    QList<RW_VAR> spare_list;
    QList<Protocol> request_queue; // built requests; the head is in flight
    QList<EXTENDVAR> extend_list;
    WriteDoneCallback write_done_cb;
    ReadDoneCallback read_done_cb;
    QMutex list_mutex;    // lists, burst counters, ret_var
    QMutex area_mutex;    // the two mirror tables
    QMutex station_mutex; // disabled_stations (only ever taken inside list_mutex)
    QMap<int, int> disabled_stations;
    RW_VAR ret_var;   // result record returned by DataCom
    qint32 last_list; // 0 cyclic, 1 write, 2 one-shot; 100 none
    qint32 write_burst;
    qint32 once_burst;
    qint32 cycle_count;
    bool comm_failed; // set when a request was given up, cleared by a good reply
    bool spare_flag;
    unsigned char frame_buf[1024];      // scratch for the Modbus TCP builders
    quint16 transaction_ids[256];       // Modbus transaction identifier per station
    QHash<quint64, uchar> bit_mirror;   // bits of classes 0 and 1
    QHash<quint64, ushort> word_mirror; // words of classes 2, 3 and 4
};

extern PLCDRIVER_EXPORT Communication_Protocol PLC_driver;

extern "C" {

// Host local areas handed over by FlashLocalRegister.
extern PLCDRIVER_EXPORT void *LB;
extern PLCDRIVER_EXPORT void *LW;
extern PLCDRIVER_EXPORT void *RWI;

// Set-up.
PLCDRIVER_EXPORT void SetComInfo(ComInfo *info);
PLCDRIVER_EXPORT void FlashLocalRegister(void *bit_area, void *word_area, void *third_area);
PLCDRIVER_EXPORT void RegistCallBackFuncIntf(WriteDoneCallback write_done, ReadDoneCallback read_done);
PLCDRIVER_EXPORT int PLCAddressChangeIntef(int reg_kind, const QString &address_text);

// Variable lists. A max_read_units of 0 or below is taken as 1 wherever the
// driver cuts requests into blocks, so no call can loop forever.
PLCDRIVER_EXPORT int AddListReadVar(RW_VAR *var);
PLCDRIVER_EXPORT int AddListWriteVar(RW_VAR *var);
PLCDRIVER_EXPORT int AddListOnceReadVar(RW_VAR *var, int flag);
PLCDRIVER_EXPORT int ReCreatReadVarList(QList<HostReadVar> *descriptors);

// Communication cycle, called from the runtime's one communication thread.
PLCDRIVER_EXPORT Protocol *ComCommunication();
PLCDRIVER_EXPORT RW_VAR *DataCom(QByteArray *reply, int length);
PLCDRIVER_EXPORT void EnCommStation(int station, int enable);
PLCDRIVER_EXPORT void EnableEthernet(int station, int enable);

// Data access, from any runtime thread. GetRegisterData ignores its first
// argument. A count whose buffer would exceed 64 MiB is treated like a
// negative count: out keeps its length, zero-filled.
PLCDRIVER_EXPORT int GetRegisterData(const void *unused, int reg_kind, const QString &address_text, int station,
                                     QByteArray *out, int count);
// A max_read_units of 0 or below is taken as 1 when cutting a write into chunks.
// Without a communication-info record (SetComInfo not called) nothing is
// written and the result is 0.
PLCDRIVER_EXPORT int SetRegisterData(const QString &name_text, int reg_kind, const QString &address_text, int station,
                                     QByteArray *data, int count, int source_type, int source_id);
PLCDRIVER_EXPORT int QueryFinishFlag();

// Debug log handler (Qt 4 handler shape): appends "timestamp:message" lines to
// /tmp/debug.log. The driver never installs it; see plcdriver_qt_message_handler.
PLCDRIVER_EXPORT void customMessageHandler(QtMsgType type, const char *message);

} // extern "C"

#include <QMessageLogContext>

// Adapter with the handler shape of Qt 5 and 6, compiled into the host, so
// that a host can install the driver's log: qInstallMessageHandler(plcdriver_qt_message_handler).
inline void plcdriver_qt_message_handler(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    customMessageHandler(type, message.toLatin1().constData());
}

#endif // PLCDRIVER_COMMUNICATION_PROTOCOL_H
