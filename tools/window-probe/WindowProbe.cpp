// Tells what the checkpoint dialog shows. Each line on standard input is answered with the dialog's state, one line of
// JSON, or with null if there is no such window. If the line begins with '=', the UTF-8 text after it is put into the
// edit control first. If it begins with '!', the library of the name after it is loaded first, from wherever Windows
// looks for one.

#include "platform/Utf.h"
#include "platform/windows/System.h"

#include <cstdio>
#include <iostream>
#include <string>

namespace
{

constexpr int EDIT_CONTROL = 1002;

/// Sends a message to a control of another process; 0 if that hangs.
std::size_t ask(HWND window, UINT message, WPARAM wParam, const void* lParam)
{
    constexpr UINT TIME_LIMIT_MS = 10'000;
    DWORD_PTR result = 0;
    SendMessageTimeoutW(window, message, wParam, reinterpret_cast<LPARAM>(lParam), SMTO_ABORTIFHUNG, TIME_LIMIT_MS,
                        &result);
    return result;
}

/// Asks the control itself: GetWindowText does not see another process's controls.
std::string textOf(HWND window)
{
    std::wstring text(ask(window, WM_GETTEXTLENGTH, 0, nullptr) + 1, L'\0');
    text.resize(ask(window, WM_GETTEXT, text.size(), text.data()));
    return platform::utf16ToUtf8({reinterpret_cast<const char16_t*>(text.data()), text.size()});
}

std::string classOf(HWND window)
{
    char name[64];
    GetClassNameA(window, name, sizeof(name));
    return name;
}

/// The text as a JSON string. It must have no control characters.
std::string toJson(const std::string& text)
{
    std::string out;
    for (const char c : text)
    {
        out.append(c == '"' || c == '\\' ? 1 : 0, '\\').append(1, c);
    }
    return '"' + out + '"';
}

std::string toBoolean(bool value) { return value ? "true" : "false"; }

std::string toJson(const RECT& area)
{
    char text[64];
    std::snprintf(text, sizeof(text), "[%ld, %ld, %ld, %ld]", area.left, area.top, area.right, area.bottom);
    return text;
}

/// The area of a window with its frame, on the screen.
std::string rectangleOf(HWND window)
{
    RECT area;
    GetWindowRect(window, &area);
    return toJson(area);
}

/// The area inside the frame, on the screen.
std::string clientRectangleOf(HWND window)
{
    RECT area;
    GetClientRect(window, &area);
    MapWindowPoints(window, nullptr, reinterpret_cast<POINT*>(&area), 2);
    return toJson(area);
}

/// How wide the text of a control is in the dialog's font, in pixels. The font itself belongs to the other process.
long textWidthOf(HWND window)
{
    constexpr int POINTS = 8;
    constexpr int POINTS_PER_INCH = 72;
    const std::u16string text = platform::utf8ToUtf16(textOf(window));
    HDC const context = GetDC(window);
    HFONT const font = CreateFontW(-MulDiv(POINTS, GetDeviceCaps(context, LOGPIXELSY), POINTS_PER_INCH), 0, 0, 0,
                                   FW_NORMAL, FALSE, FALSE, FALSE, DEFAULT_CHARSET, OUT_DEFAULT_PRECIS,
                                   CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY, DEFAULT_PITCH, L"MS Shell Dlg");
    HGDIOBJ const previous = SelectObject(context, font);
    SIZE size = {};
    GetTextExtentPoint32W(context, reinterpret_cast<const wchar_t*>(text.data()), static_cast<int>(text.size()), &size);
    SelectObject(context, previous);
    DeleteObject(font);
    ReleaseDC(window, context);
    return size.cx;
}

std::string stateOf(HWND window)
{
    return "{\"id\": " + std::to_string(GetDlgCtrlID(window)) + ", \"class\": " + toJson(classOf(window)) +
           ", \"text\": " + toJson(textOf(window)) + ", \"enabled\": " + toBoolean(IsWindowEnabled(window) != FALSE) +
           ", \"style\": " + std::to_string(static_cast<DWORD>(GetWindowLongW(window, GWL_STYLE))) +
           ", \"rectangle\": " + rectangleOf(window);
}

std::string stateOfDialog(HWND dialog)
{
    if (dialog == nullptr)
    {
        return "null";
    }
    GUITHREADINFO thread = {};
    thread.cbSize = sizeof(thread);
    GetGUIThreadInfo(GetWindowThreadProcessId(dialog, nullptr), &thread);
    std::string controls;
    for (HWND control = GetWindow(dialog, GW_CHILD); control != nullptr; control = GetWindow(control, GW_HWNDNEXT))
    {
        controls += (controls.empty() ? "" : ", ") + stateOf(control) +
                    ", \"textWidth\": " + std::to_string(textWidthOf(control)) + "}";
    }
    return stateOf(dialog) + ", \"client\": " + clientRectangleOf(dialog) +
           ", \"foreground\": " + toBoolean(GetForegroundWindow() == dialog) +
           ", \"focus\": " + std::to_string(GetDlgCtrlID(thread.hwndFocus)) + ", \"controls\": [" + controls + "]}";
}

} // namespace

int main()
{
    SetProcessDPIAware(); // else Windows tells the coordinates of a screen of 96 dots per inch
    GetDesktopWindow();   // brings up the processes of the desktop
    for (std::string line; std::getline(std::cin, line);)
    {
        const HWND dialog = FindWindowW(L"#32770", L"Add VSS Checkpoint");
        if (line.starts_with('='))
        {
            const std::u16string text = platform::utf8ToUtf16(std::string_view(line).substr(1));
            ask(GetDlgItem(dialog, EDIT_CONTROL), WM_SETTEXT, 0, text.c_str());
        }
        else if (line.starts_with('!'))
        {
            LoadLibraryA(line.c_str() + 1);
        }
        std::cout << stateOfDialog(dialog) << std::endl;
    }
}
