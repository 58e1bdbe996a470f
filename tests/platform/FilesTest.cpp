#include "platform/Files.h"
#include "tests/support/Support.h"

#include <algorithm>
#include <array>

#include <gtest/gtest.h>

namespace
{

using namespace platform;

std::string append(const std::string& path, std::string_view text)
{
    const OpenedFile file = openFile(path.c_str(), OpenMode::Append);
    EXPECT_EQ(ErrorNumber::Success, file.error);
    EXPECT_EQ(text.size(), writeFile(file.handle, text.data(), text.size()).bytes);
    EXPECT_EQ(ErrorNumber::Success, closeFile(file.handle));
    return ScratchFolder::read(path);
}

TEST(Files, AppendedBytesGoToTheEndAndAreReadBackAsTheyAre)
{
    const ScratchFolder folder;
    const std::string path = folder.path("file");
    EXPECT_EQ("one\r\n", append(path, "one\r\n"));
    EXPECT_EQ("one\r\ntwo", append(path, "two"));

    const OpenedFile file = openFile(path.c_str(), OpenMode::Read);
    ASSERT_EQ(ErrorNumber::Success, file.error);
    std::array<char, 100> buffer{};
    EXPECT_EQ(8U, readFile(file.handle, buffer.data(), buffer.size()).bytes);
    EXPECT_STREQ("one\r\ntwo", buffer.data());
    const Transfer end = readFile(file.handle, buffer.data(), buffer.size());
    EXPECT_EQ(0U, end.bytes);
    EXPECT_EQ(ErrorNumber::Success, end.error);
    EXPECT_EQ(ErrorNumber::Success, closeFile(file.handle));
}

TEST(Files, AnOpenFileCanBeReadRenamedAndRemovedByOthers)
{
    const ScratchFolder folder;
    const std::string path = folder.write("live", "");
    const OpenedFile file = openFile(path.c_str(), OpenMode::Append);
    EXPECT_EQ(3U, writeFile(file.handle, "abc", 3).bytes);
    EXPECT_EQ("abc", ScratchFolder::read(path));
    const std::string renamed = folder.path("renamed");
    EXPECT_EQ(0, renameFile(path.c_str(), renamed.c_str()));
    EXPECT_EQ(3U, writeFile(file.handle, "def", 3).bytes);
    EXPECT_EQ("abcdef", ScratchFolder::read(renamed));
    EXPECT_EQ(0, removeFile(renamed.c_str()));
    EXPECT_EQ(ErrorNumber::Success, closeFile(file.handle));
}

TEST(Files, FailuresCarryTheSystemsNumbers)
{
    const ScratchFolder folder;
    const std::string file = folder.write("file", "text");
    const std::string missing = folder.path("missing");
    EXPECT_EQ(ErrorNumber::FileNotFound, openFile(missing.c_str(), OpenMode::Read).error);
    EXPECT_EQ(FileHandle::Invalid, openFile(missing.c_str(), OpenMode::Read).handle);
    EXPECT_EQ(ErrorNumber::PathNotFound, openFile(folder.path("no/such").c_str(), OpenMode::Read).error);
    EXPECT_EQ(ErrorNumber::AccessDenied, openFile(folder.path("").c_str(), OpenMode::Append).error);
    EXPECT_EQ(ErrorNumber::AccessDenied, openFile(folder.path("").c_str(), OpenMode::Read).error);
    EXPECT_EQ(2, removeFile(missing.c_str()));
    EXPECT_EQ(2, renameFile(missing.c_str(), folder.path("other").c_str()));
    EXPECT_FALSE(pathExists(missing.c_str()));
    EXPECT_TRUE(pathExists(file.c_str()));
}

TEST(Files, RenamingNeverReplacesAndRemovingSparesFolders)
{
    const ScratchFolder folder;
    const std::string from = folder.write("from", "new");
    const std::string to = folder.write("to", "old");
    EXPECT_EQ(17, renameFile(from.c_str(), to.c_str()));
    EXPECT_EQ("new", ScratchFolder::read(from));
    EXPECT_EQ("old", ScratchFolder::read(to));
    const std::string sub = folder.path("sub");
    EXPECT_EQ(0, createFolderErrno(sub.c_str()));
    EXPECT_NE(0, removeFile(sub.c_str()));
    EXPECT_EQ(17, createFolderErrno(sub.c_str()));
    EXPECT_EQ(ErrorNumber::AlreadyExists, createFolder(to.c_str()));
    EXPECT_EQ(2, createFolderErrno(folder.path("no/such").c_str()));
    EXPECT_EQ(ErrorNumber::PathNotFound, createFolder(folder.path("no/such").c_str()));
}

TEST(Files, ANewFileReplacesAnotherInOneStep)
{
    const ScratchFolder folder;
    const std::string from = folder.path("from");
    const std::string to = folder.write("to", "old");
    EXPECT_EQ(ErrorNumber::AlreadyExists, openFile(to.c_str(), OpenMode::CreateNew).error);
    const OpenedFile file = openFile(from.c_str(), OpenMode::CreateNew);
    ASSERT_EQ(ErrorNumber::Success, file.error);
    EXPECT_EQ(3U, writeFile(file.handle, "new", 3).bytes);
    EXPECT_EQ(ErrorNumber::Success, flushFile(file.handle));
    EXPECT_EQ(ErrorNumber::Success, closeFile(file.handle));
    EXPECT_EQ(ErrorNumber::InvalidHandle, flushFile(FileHandle::Invalid));

    EXPECT_EQ(ErrorNumber::Success, replaceFile(from.c_str(), to.c_str()));
    EXPECT_EQ(ErrorNumber::Success, flushFolder(folder.path("").c_str()));
    EXPECT_EQ("new", ScratchFolder::read(to));
    EXPECT_FALSE(pathExists(from.c_str()));
    EXPECT_EQ(ErrorNumber::FileNotFound, replaceFile(from.c_str(), to.c_str()));

    const std::string sub = folder.path("sub");
    EXPECT_EQ(0, createFolderErrno(sub.c_str()));
    EXPECT_EQ(ErrorNumber::AlreadyExists, openFile(sub.c_str(), OpenMode::CreateNew).error);
    EXPECT_EQ(ErrorNumber::AccessDenied, replaceFile(to.c_str(), sub.c_str()));
    EXPECT_EQ(ErrorNumber::Success, replaceFile(to.c_str(), folder.path("sub/moved").c_str()));
    EXPECT_EQ(ErrorNumber::FolderNotEmpty, removeFolder(sub.c_str()));
    EXPECT_EQ(0, removeFile(folder.path("sub/moved").c_str()));
    EXPECT_EQ(ErrorNumber::Success, removeFolder(sub.c_str()));
    EXPECT_EQ(ErrorNumber::FileNotFound, removeFolder(sub.c_str()));
}

TEST(Files, AFolderIsLockedUntilTheHandleIsClosed)
{
    const ScratchFolder folder;
    const std::string path = folder.path("sub");
    EXPECT_EQ(0, createFolderErrno(path.c_str()));
    const OpenedFile lock = lockFolder(path.c_str());
    ASSERT_EQ(ErrorNumber::Success, lock.error);
    EXPECT_EQ(ErrorNumber::SharingViolation, lockFolder(path.c_str()).error);
    EXPECT_EQ(ErrorNumber::Success, closeFile(lock.handle));
    const OpenedFile again = lockFolder(path.c_str());
    EXPECT_EQ(ErrorNumber::Success, again.error);
    EXPECT_EQ(ErrorNumber::Success, closeFile(again.handle));
    EXPECT_EQ(ErrorNumber::Success, removeFolder(path.c_str())); // nothing is left in it
}

TEST(Files, AWalkMeetsEveryEntryOnceAndSaysWhichAreFolders)
{
    const ScratchFolder folder;
    EXPECT_EQ(0, createFolderErrno(folder.path("sub").c_str()));
    folder.write("a.txt", "");
    folder.write("b.txt", "");
    Texts seen;
    FolderEntry entry;
    const OpenedFolder walk = findFirstEntry(folder.path("").c_str(), entry);
    ASSERT_EQ(ErrorNumber::Success, walk.error);
    ErrorNumber error = ErrorNumber::Success;
    for (; error == ErrorNumber::Success; error = findNextEntry(walk.handle, entry))
    {
        seen.push_back(entry.name + (entry.isFolder ? "/" : ""));
    }
    closeFolder(walk.handle);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(ErrorNumber::NoMoreFiles, error);
    EXPECT_EQ((Texts{"../", "./", "a.txt", "b.txt", "sub/"}), seen);

    EXPECT_EQ(ErrorNumber::PathNotFound, findFirstEntry(folder.path("missing").c_str(), entry).error);
}

} // namespace
