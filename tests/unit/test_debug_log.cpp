// The debug log handler: "yyyy.MM.dd.hh:mm:ss.z:message" lines appended to /tmp/debug.log.
#include <gtest/gtest.h>

#include "driver_test_support.h"

#include <QDate>
#include <QDateTime>
#include <QFile>
#include <QRegularExpression>
#include <QStringList>
#include <QTime>
#include <QtGlobal>

#include <unistd.h>

namespace {

const char *kLogPath = "/tmp/debug.log";

QByteArray read_log()
{
    QFile f(QString::fromLatin1(kLogPath));
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

// The log's lines that carry the given text (other processes may log too).
QStringList lines_with(const QByteArray &log, const QString &text)
{
    QStringList found;
    for (const QString &line : QString::fromLatin1(log).split(QLatin1Char('\n')))
        if (line.contains(text))
            found << line;
    return found;
}

// A text no other process writes.
QString unique_text(const char *what)
{
    static int serial = 0;
    return QStringLiteral("%1-%2-%3").arg(QLatin1String(what)).arg(qint64(getpid())).arg(++serial);
}

const QRegularExpression kLine(QStringLiteral("^\\d{4}\\.\\d{2}\\.\\d{2}\\.\\d{2}:\\d{2}:\\d{2}\\.(\\d{1,3}):(.*)$"));

} // namespace

TEST(DebugLog, LineFormatWithMillisecondsWithoutLeadingZeros)
{
    const QDateTime when(QDate(2024, 3, 5), QTime(7, 8, 9, 45));
    EXPECT_EQ(debug_log_line(when, QStringLiteral("abc")), QStringLiteral("2024.03.05.07:08:09.45:abc"));
    EXPECT_EQ(debug_log_line(QDateTime(QDate(2024, 3, 5), QTime(7, 8, 9, 5)), QStringLiteral("x")),
              QStringLiteral("2024.03.05.07:08:09.5:x"));
    EXPECT_EQ(debug_log_line(QDateTime(QDate(1999, 12, 31), QTime(23, 59, 59, 999)), QString()),
              QStringLiteral("1999.12.31.23:59:59.999:"));
    EXPECT_EQ(debug_log_line(QDateTime(QDate(2026, 1, 2), QTime(0, 0, 0, 0)), QStringLiteral("a: b")),
              QStringLiteral("2026.01.02.00:00:00.0:a: b"));
}

TEST(DebugLog, TwoCallsAppendTwoLinesAndKeepEarlierContents)
{
    const QByteArray before = read_log();
    const QString first = unique_text("first");
    const QString second = unique_text("second");
    customMessageHandler(QtDebugMsg, first.toLatin1().constData());
    customMessageHandler(QtWarningMsg, second.toLatin1().constData());
    const QByteArray after = read_log();
    ASSERT_GE(after.size(), before.size());
    EXPECT_EQ(after.left(before.size()), before); // nothing earlier is lost

    const QStringList a = lines_with(after, first);
    const QStringList b = lines_with(after, second);
    ASSERT_EQ(a.size(), 1);
    ASSERT_EQ(b.size(), 1);
    EXPECT_LT(after.indexOf(first.toLatin1()), after.indexOf(second.toLatin1()));
    // timestamp, colon, message: no space, no prefix for the message type
    const QRegularExpressionMatch m1 = kLine.match(a.first());
    ASSERT_TRUE(m1.hasMatch()) << a.first().toStdString();
    EXPECT_EQ(m1.captured(2), first);
    const QRegularExpressionMatch m2 = kLine.match(b.first());
    ASSERT_TRUE(m2.hasMatch()) << b.first().toStdString();
    EXPECT_EQ(m2.captured(2), second);
    EXPECT_TRUE(after.endsWith('\n'));
}

TEST(DebugLog, TimestampIsTheCurrentLocalTime)
{
    const QString text = unique_text("now");
    const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
    customMessageHandler(QtCriticalMsg, text.toLatin1().constData());
    const QDateTime after = QDateTime::currentDateTime().addSecs(1);
    const QStringList lines = lines_with(read_log(), text);
    ASSERT_EQ(lines.size(), 1);
    const QString stamp = lines.first().section(QLatin1Char(':'), 0, 2).section(QLatin1Char('.'), 0, 3);
    const QDateTime logged = QDateTime::fromString(stamp, QStringLiteral("yyyy.MM.dd.hh:mm:ss"));
    ASSERT_TRUE(logged.isValid()) << stamp.toStdString();
    EXPECT_GE(logged, before.addMSecs(-before.time().msec()));
    EXPECT_LE(logged, after);
}

TEST(DebugLog, NullMessageLogsAnEmptyLine)
{
    const QByteArray before = read_log();
    customMessageHandler(QtDebugMsg, nullptr);
    const QByteArray after = read_log();
    ASSERT_TRUE(after.startsWith(before));
    const QString added = QString::fromLatin1(after.mid(before.size()));
    bool found = false;
    for (const QString &line : added.split(QLatin1Char('\n'))) {
        const QRegularExpressionMatch m = kLine.match(line);
        found = found || (m.hasMatch() && m.captured(2).isEmpty());
    }
    EXPECT_TRUE(found) << added.toStdString();
}

TEST(DebugLog, InstalledThroughQtMessageHandler)
{
    const QString text = unique_text("installed");
    QtMessageHandler previous = qInstallMessageHandler(plcdriver_qt_message_handler);
    qWarning("%s", text.toLatin1().constData());
    qInstallMessageHandler(previous);
    const QStringList lines = lines_with(read_log(), text);
    ASSERT_EQ(lines.size(), 1);
    const QRegularExpressionMatch m = kLine.match(lines.first());
    ASSERT_TRUE(m.hasMatch());
    EXPECT_EQ(m.captured(2), text);
}
