#include "os/AppRegistry.h"

#include "os/OsLogging.h"

#include <QDir>
#include <QLoggingCategory>

#ifdef Q_OS_WIN
#include <memory>
#include <string>
#include <type_traits>
#include <windows.h>
#endif

namespace os {

namespace {
#ifdef Q_OS_WIN
struct KeyClose
{
    void operator()(HKEY key) const { RegCloseKey(key); }
};
using KeyPtr = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyClose>;

struct HandleClose
{
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using HandlePtr = std::unique_ptr<void, HandleClose>;

bool readInstallDir(HKEY key, std::wstring &installDir)
{
    DWORD size = 0;
    if (RegGetValueW(key, nullptr, L"InstallDir", RRF_RT_REG_SZ, nullptr, nullptr, &size) != ERROR_SUCCESS)
        return false;
    std::wstring buffer(size / sizeof(wchar_t) + 1, L'\0');
    size = DWORD(buffer.size() * sizeof(wchar_t));
    if (RegGetValueW(key, nullptr, L"InstallDir", RRF_RT_REG_SZ, nullptr, buffer.data(), &size) != ERROR_SUCCESS)
        return false;
    buffer.resize(wcsnlen(buffer.c_str(), buffer.size()));
    installDir = buffer;
    return true;
}
#endif
} // namespace

bool AppRegistry::installPlugin(const QString &argument)
{
#ifdef Q_OS_WIN
    HKEY rawKey = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Korvel Works LLC\\Korvel Video Pro", 0, KEY_READ, &rawKey)
        != ERROR_SUCCESS) {
        qCWarning(lcOs) << "Could not find app registry";
        return false;
    }
    std::wstring installDir;
    {
        const KeyPtr key(rawKey);
        if (!readInstallDir(key.get(), installDir)) {
            qCWarning(lcOs) << "Could not read InstallDir key";
            return false;
        }
    }

    const QString directory = QString::fromStdWString(installDir);
    const std::wstring program = (directory + QDir::separator() + QStringLiteral("elevator.exe")).toStdWString();
    const std::wstring parameters = argument.toStdWString();

    SHELLEXECUTEINFOW info{};
    info.cbSize = sizeof(info);
    info.fMask = SEE_MASK_NOCLOSEPROCESS;
    info.lpVerb = nullptr;
    info.lpFile = program.c_str();
    info.lpParameters = parameters.c_str();
    info.lpDirectory = installDir.c_str();
    info.nShow = SW_SHOWNORMAL;
    if (!ShellExecuteExW(&info) || !info.hProcess) {
        qCWarning(lcOs) << "Failed to start process:" << GetLastError();
        return false;
    }
    const HandlePtr process(info.hProcess);

    // No upper limit: the user may sit on the elevation prompt for as long as
    // they like.
    DWORD exitCode = STILL_ACTIVE;
    do {
        WaitForSingleObject(process.get(), 10000);
    } while (GetExitCodeProcess(process.get(), &exitCode) && exitCode == STILL_ACTIVE);

    if (exitCode != 0) {
        qCWarning(lcOs) << "Failed:" << exitCode;
        return false;
    }
    return true;
#else
    Q_UNUSED(argument);
    qCWarning(lcOs) << "Could not find app registry";
    return false;
#endif
}

} // namespace os
