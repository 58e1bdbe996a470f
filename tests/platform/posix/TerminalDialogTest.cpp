// The dialogue over standard input: the messages that a dialog procedure gets.

#include "platform/Dialog.h"

#include <iostream>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

constexpr int EDIT = 1002;
ModuleResources resources = {.dialog = {.id = 101, .title = "Title", .prompt = "Prompt", .editControl = EDIT}};
std::vector<std::string> messages;
bool endsOnOk = true;

std::intptr_t recordingProcedure(DialogHandle dialog, std::uint32_t message, std::uintptr_t wParam,
                                 std::intptr_t lParam)
{
    std::ostringstream text;
    text << std::hex << message << " " << wParam;
    const std::uintptr_t control = wParam & 0xFFFFU;
    if (control == EDIT)
    {
        EXPECT_EQ(lParam, reinterpret_cast<std::intptr_t>(dialogItem(dialog, EDIT)));
        const auto length = sendItemMessage(dialog, EDIT, MESSAGE_EDIT_LINE_LENGTH, 0, 0);
        enableControl(dialogItem(dialog, CONTROL_OK), length > 0);
        text << " length " << length;
    }
    if (control == CONTROL_CANCEL || (control == CONTROL_OK && endsOnOk))
    {
        endDialog(dialog, 7);
    }
    messages.push_back(text.str());
    return 1;
}

std::vector<std::string> converse(const std::string& input)
{
    std::istringstream stream(input);
    std::streambuf* const standardInput = std::cin.rdbuf(stream.rdbuf());
    messages.clear();
    EXPECT_EQ(7, runDialog(&resources, 101, recordingProcedure));
    std::cin.rdbuf(standardInput);
    std::cin.clear();
    return messages;
}

TEST(TerminalDialog, ALineIsTypedAndReturnPressesTheDefaultButton)
{
    using Messages = std::vector<std::string>;
    EXPECT_EQ((Messages{"110 0", "111 30003ea length 2", "111 1"}), converse("\xF0\x9F\x98\x80\r\nnot read\n"));
    EXPECT_EQ((Messages{"110 0", "111 30003ea length 2", "111 1"}), converse("ab"));
    EXPECT_EQ((Messages{"110 0", "111 30003ea length 0", "111 2"}), converse("\n"));
    EXPECT_EQ((Messages{"110 0", "111 2"}), converse(""));
    endsOnOk = false;
    EXPECT_EQ((Messages{"110 0", "111 30003ea length 1", "111 1", "111 30003ea length 2", "111 1", "111 2"}),
              converse("a\nbc\n"));
    EXPECT_EQ(-1, runDialog(&resources, 102, recordingProcedure));
    EXPECT_EQ(-1, runDialog(nullptr, 101, recordingProcedure));
}

} // namespace
