#include "os/NativeSurface.h"

#include <QtGlobal>

#ifdef Q_OS_WIN
#include <windows.h>
#include <dxgi1_6.h>
#include <wrl/client.h>
#elif defined(Q_OS_LINUX)
#include <QGuiApplication>
#include <xcb/xcb.h>
#include <cstdlib>
#endif

#include <algorithm>

namespace os {

QRect scaledRect(const QRect &rect, qreal scale)
{
    const auto factor = static_cast<float>(scale);
    const auto scaled = [factor](int value) { return static_cast<int>(static_cast<float>(value) * factor); };
    return {scaled(rect.x()), scaled(rect.y()), scaled(rect.width()), scaled(rect.height())};
}

#ifdef Q_OS_WIN

namespace {

constexpr wchar_t containerClass[] = L"mpvcontainer";

bool registerContainerClass()
{
    // Registered once for the process, before the first window.
    static const bool registered = [] {
        WNDCLASSW windowClass{};
        windowClass.lpfnWndProc = DefWindowProcW;
        windowClass.hInstance = GetModuleHandleW(nullptr);
        windowClass.hbrBackground = static_cast<HBRUSH>(GetStockObject(BLACK_BRUSH));
        windowClass.lpszClassName = containerClass;
        return RegisterClassW(&windowClass) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
    }();
    return registered;
}

struct WindowDeleter
{
    void operator()(HWND window) const { DestroyWindow(window); }
};

} // namespace

struct NativeSurface::Native
{
    std::unique_ptr<std::remove_pointer_t<HWND>, WindowDeleter> window;
};

NativeSurface::NativeSurface(WId parent)
    : native(std::make_unique<Native>())
{
    if (!registerContainerClass())
        return;
    native->window.reset(CreateWindowExW(0, containerClass, containerClass, WS_CHILD | WS_VISIBLE, 0, 0,
                                         CW_USEDEFAULT, CW_USEDEFAULT, reinterpret_cast<HWND>(parent), nullptr,
                                         GetModuleHandleW(nullptr), nullptr));
}

NativeSurface::~NativeSurface() = default;

bool NativeSurface::isValid() const
{
    return native->window != nullptr;
}

WId NativeSurface::handle() const
{
    return reinterpret_cast<WId>(native->window.get());
}

void NativeSurface::setGeometry(const QRect &rect, qreal, int stackMode)
{
    if (!native->window)
        return;
    // Win32 wants physical pixels; the monitor's DPI gives the scale.
    const qreal scale = GetDpiForWindow(native->window.get()) / 96.0;
    const QRect physical = scaledRect(rect, scale);
    HWND insertAfter = HWND_BOTTOM;
    UINT flags = SWP_SHOWWINDOW;
    if (stackMode == -1)
        flags |= SWP_NOZORDER;
    else if (stackMode != 0)
        insertAfter = HWND_TOP;
    SetWindowPos(native->window.get(), insertAfter, physical.x(), physical.y(), physical.width(),
                 physical.height(), flags);
}

QRect NativeSurface::nativeGeometry() const
{
    if (!native->window)
        return {};
    RECT rect{};
    if (!GetWindowRect(native->window.get(), &rect))
        return {};
    POINT topLeft{rect.left, rect.top};
    ScreenToClient(GetParent(native->window.get()), &topLeft);
    return {topLeft.x, topLeft.y, rect.right - rect.left, rect.bottom - rect.top};
}

bool isHdrActive(WId window)
{
    using Microsoft::WRL::ComPtr;
    const HMONITOR monitor = MonitorFromWindow(reinterpret_cast<HWND>(window), MONITOR_DEFAULTTONEAREST);
    if (!monitor)
        return false;
    MONITORINFOEXW monitorInfo{};
    monitorInfo.cbSize = sizeof(monitorInfo);
    if (!GetMonitorInfoW(monitor, &monitorInfo))
        return false;
    ComPtr<IDXGIFactory1> factory;
    if (FAILED(CreateDXGIFactory1(IID_PPV_ARGS(&factory))))
        return false;
    ComPtr<IDXGIAdapter1> adapter;
    for (UINT a = 0; factory->EnumAdapters1(a, &adapter) != DXGI_ERROR_NOT_FOUND; ++a) {
        ComPtr<IDXGIOutput> output;
        for (UINT o = 0; adapter->EnumOutputs(o, &output) != DXGI_ERROR_NOT_FOUND; ++o) {
            ComPtr<IDXGIOutput6> output6;
            if (FAILED(output.As(&output6)))
                continue;
            DXGI_OUTPUT_DESC1 description{};
            if (FAILED(output6->GetDesc1(&description)))
                continue;
            if (wcscmp(description.DeviceName, monitorInfo.szDevice) == 0)
                return description.ColorSpace == DXGI_COLOR_SPACE_RGB_FULL_G2084_NONE_P2020;
        }
    }
    return false;
}

#elif defined(Q_OS_LINUX)

// X11 through its own xcb connection: the window then belongs to this object
// alone, and X errors (a parent that went first, say) come back as events on
// that connection instead of reaching the toolkit's error handler.
struct NativeSurface::Native
{
    struct ConnectionDeleter
    {
        void operator()(xcb_connection_t *connection) const { xcb_disconnect(connection); }
    };
    std::unique_ptr<xcb_connection_t, ConnectionDeleter> connection;
    xcb_window_t window = XCB_NONE;
};

namespace {

bool onX11()
{
    const char *display = std::getenv("DISPLAY");
    return display && *display && QGuiApplication::platformName() == QLatin1String("xcb");
}

} // namespace

NativeSurface::NativeSurface(WId parent)
    : native(std::make_unique<Native>())
{
    if (!onX11() || parent == 0)
        return;
    native->connection.reset(xcb_connect(nullptr, nullptr));
    xcb_connection_t *connection = native->connection.get();
    if (xcb_connection_has_error(connection)) {
        native->connection.reset();
        return;
    }
    const xcb_window_t window = xcb_generate_id(connection);
    // Depth and visual copied from the parent, so any visual the toolkit chose
    // matches; black until the player draws. No events are selected, so mouse
    // input passes up to the parent and the scene keeps it.
    const uint32_t values[] = {0};
    const xcb_void_cookie_t created = xcb_create_window_checked(
        connection, XCB_COPY_FROM_PARENT, window, static_cast<xcb_window_t>(parent), 0, 0, 1, 1, 0,
        XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL, values);
    if (xcb_generic_error_t *error = xcb_request_check(connection, created)) {
        free(error);
        native->connection.reset();
        return;
    }
    native->window = window;
    xcb_map_window(connection, window);
    xcb_flush(connection);
}

NativeSurface::~NativeSurface()
{
    if (native->window != XCB_NONE) {
        xcb_destroy_window(native->connection.get(), native->window);
        xcb_flush(native->connection.get());
    }
}

bool NativeSurface::isValid() const
{
    return native->window != XCB_NONE;
}

WId NativeSurface::handle() const
{
    return static_cast<WId>(native->window);
}

void NativeSurface::setGeometry(const QRect &rect, qreal devicePixelRatio, int stackMode)
{
    if (native->window == XCB_NONE)
        return;
    const QRect physical = scaledRect(rect, devicePixelRatio);
    // X refuses windows of zero size.
    const uint32_t geometry[] = {static_cast<uint32_t>(physical.x()), static_cast<uint32_t>(physical.y()),
                                 static_cast<uint32_t>(std::max(physical.width(), 1)),
                                 static_cast<uint32_t>(std::max(physical.height(), 1)),
                                 stackMode == 0 ? XCB_STACK_MODE_BELOW : XCB_STACK_MODE_ABOVE};
    uint16_t mask = XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT;
    if (stackMode != -1)
        mask |= XCB_CONFIG_WINDOW_STACK_MODE;
    xcb_configure_window(native->connection.get(), native->window, mask, geometry);
    xcb_map_window(native->connection.get(), native->window);
    xcb_flush(native->connection.get());
}

QRect NativeSurface::nativeGeometry() const
{
    if (native->window == XCB_NONE)
        return {};
    xcb_connection_t *connection = native->connection.get();
    xcb_get_geometry_reply_t *reply =
        xcb_get_geometry_reply(connection, xcb_get_geometry(connection, native->window), nullptr);
    if (!reply)
        return {};
    const QRect rect(reply->x, reply->y, reply->width, reply->height);
    free(reply);
    return rect;
}

bool isHdrActive(WId)
{
    return false;
}

#else

struct NativeSurface::Native
{
};

NativeSurface::NativeSurface(WId)
    : native(std::make_unique<Native>())
{
}

NativeSurface::~NativeSurface() = default;

bool NativeSurface::isValid() const
{
    return false;
}

WId NativeSurface::handle() const
{
    return 0;
}

void NativeSurface::setGeometry(const QRect &, qreal, int) {}

QRect NativeSurface::nativeGeometry() const
{
    return {};
}

bool isHdrActive(WId)
{
    return false;
}

#endif

} // namespace os
