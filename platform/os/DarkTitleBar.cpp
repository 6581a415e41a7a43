#include "os/DarkTitleBar.h"

#ifdef Q_OS_WIN
#include <windows.h>
#endif

namespace os {

#ifdef Q_OS_WIN
namespace {
struct WindowCompositionAttributeData
{
    int attribute;
    void *data;
    SIZE_T size;
};
using AllowDarkModeForWindow = BOOL(WINAPI *)(HWND, BOOL);
using SetPreferredAppMode = int(WINAPI *)(int);
using SetWindowCompositionAttribute = BOOL(WINAPI *)(HWND, WindowCompositionAttributeData *);
} // namespace

void applyDarkTitleBar(WId window)
{
    const HWND hwnd = reinterpret_cast<HWND>(window);
    // Undocumented entry points, fixed by ordinal on the Windows versions the
    // application supports.
    const HMODULE uxtheme = LoadLibraryExW(L"uxtheme.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    const HMODULE user32 = GetModuleHandleW(L"user32.dll");
    if (!uxtheme || !user32)
        return;
    const auto allowDark = reinterpret_cast<AllowDarkModeForWindow>(GetProcAddress(uxtheme, MAKEINTRESOURCEA(133)));
    const auto preferredMode = reinterpret_cast<SetPreferredAppMode>(GetProcAddress(uxtheme, MAKEINTRESOURCEA(135)));
    const auto setAttribute = reinterpret_cast<SetWindowCompositionAttribute>(
        GetProcAddress(user32, "SetWindowCompositionAttribute"));
    if (preferredMode)
        preferredMode(1);
    if (allowDark)
        allowDark(hwnd, TRUE);
    if (setAttribute) {
        int dark = 1;
        WindowCompositionAttributeData data{26, &dark, sizeof(dark)};
        setAttribute(hwnd, &data);
    }
}
#else
void applyDarkTitleBar(WId)
{
}
#endif

} // namespace os
