// What the tests of the host's portable parts share.
#include "tests/unit/host_portable/support.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "host/event/event_loop.h"
#include "host/option/option.h"

namespace support {

Folder::Folder() {
    char name[] = "/tmp/pbr-test-XXXXXX";
    path = mkdtemp(name);
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string Folder::file(const std::string &name, const std::string &text) const {
    const std::string whole = path + "/" + name;
    std::ofstream(whole, std::ios::binary) << text;
    return whole;
}

Options::Options(const std::vector<std::string> &more) {
    std::vector<std::string> all = {"host.root=" + root.path, "host.log=stderr"};
    all.insert(all.end(), more.begin(), more.end());
    EXPECT_EQ("", host::optionLoad(all, root.file("empty.conf", "")));
}

Options::~Options() {
    EXPECT_EQ("", host::optionLoad({"host.log=stderr"}, root.file("empty.conf", "")));
}

void eventThreadSettle() {
    std::promise<void> done;
    host::hostEventLoop().post([&] { done.set_value(); });
    done.get_future().wait();
}

StderrCapture::StderrCapture() {
    fflush(stderr);
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    before = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    readFd = ends[0];
}

StderrCapture::~StderrCapture() {
    dup2(before, STDERR_FILENO);
    close(before);
    close(readFd);
}

std::string StderrCapture::take() {
    std::string text;
    char part[4096];
    for (ssize_t count; (count = read(readFd, part, sizeof(part))) > 0;) {
        text.append(part, static_cast<size_t>(count));
    }
    return text;
}

} // namespace support
