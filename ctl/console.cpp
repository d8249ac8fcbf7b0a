#include "console.h"

#include <cstdio>

bool Console::out(const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), stdout);
    return std::fflush(stdout) == 0 && !std::ferror(stdout);
}

int Console::fail(const Failure& failure)
{
    const QByteArray line = QStringLiteral("zel5ctl: %1\n").arg(failure.message).toUtf8();
    std::fwrite(line.constData(), 1, static_cast<std::size_t>(line.size()), stderr);
    std::fflush(stderr);
    return failure.code;
}
