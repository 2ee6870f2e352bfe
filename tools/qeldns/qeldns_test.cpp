// The qeldns command against a signature-checking resolution service on loopback.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>
#include <regex>

#include "support/ResolutionService.h"
#include "support/ScratchDirectory.h"

using qel::test::ResolutionService;
using Lines = std::vector<std::string>;

TEST(Qeldns, PrintsWhatCameFromOutsideCheckedEscapedAndCappedAndExitsWithItsStatus) {
    qel::test::ScratchDirectory scratch;
    ResolutionService service{"acct", "secret", "qeldns"};
    setenv("QELDNS_AUTH_ID", "acct", 1);
    setenv("QELDNS_AUTH_SECRET", "secret", 1);
    // The exit status and the lines of standard output, JSON objects without their times;
    // standard error goes to the file "err". Each run has a store of its own.
    int runs = 0;
    const auto run = [&](const std::string& arguments) {
        const std::string command = std::string(QELDNS_BINARY) + " --server " + service.baseUrl() +
                                    " --store " + scratch.file(std::to_string(++runs)) + " " +
                                    arguments + " 2>" + scratch.file("err");
        FILE* pipe = popen(command.c_str(), "r");
        Lines lines;
        char buffer[4096];
        while (std::fgets(buffer, sizeof buffer, pipe))
            lines.emplace_back(buffer, std::strcspn(buffer, "\n"));
        for (std::string& line : lines)
            line = std::regex_replace(line, std::regex(R"(,"microseconds":\d+| \(ttl \d+\))"), "");
        const int status = pclose(pipe);
        return std::pair{WIFEXITED(status) ? WEXITSTATUS(status) : -1, lines};
    };
    const std::string forged = "192.0.2.9\nb.test 6.6.6.6", escaped = "192.0.2.9\\nb.test 6.6.6.6";
    service.setAddresses("b.test", {"192.0.2.5", "<script>", forged, "2001:db8::5"});
    service.setAddresses("c.test", {"not-an-ip"});
    const struct {
        std::string arguments;
        Lines out;
        Lines err;  // parts of standard error, in this order
        int status;
        int logins = -1;  // at the service; -1: one, none for bad usage; -2: one, or a renewal more
    } cases[] = {
        // The resolve is refused with a message of half a megabyte that clears the screen.
        {"a.test",
         {},
         {"a.test: error 403 (refused by the service): \\x1b[2Jxxx", "xxx... (499704 more bytes)"},
         1},
        {"b.test", {"b.test 192.0.2.5"}, {"\"<script>\"", escaped, "2001:db8::5"}, 0},
        {"--design-keys -6 b.test", {"b.test 2001:db8::5"}, {"192.0.2.5", "\"<script>\""}, 0},
        // Both families, each its own, and a zone file's absolute name.
        {"-a b.test.", {"b.test. 192.0.2.5", "b.test. 2001:db8::5"}, {"192.0.2.5"}, 0},
        {"missing.test", {}, {"qeldns: no IPv4 address for missing.test\n"}, 3},
        {"--json nope!",
         {R"({"domain":"nope!","error":{"code":1,"gloss":"malformed name","message":"域名格式错误"},"type":"A"})"},
         {},
         1},
        {"--server nonsense a.test", {}, {"qeldns: --server needs an http:// or https:// URL"}, 2},
        // Why the login failed, beside the code that says only that it did.
        {"--server http://127.0.0.1:1 a.test",
         {},
         {"a.test: error 3 (not logged in): ", "Couldn't connect to server"},
         1,
         0},
        {"--secret wrong b.test",
         {},
         {"b.test: error 3 (not logged in): ", "; the service said \"signature mismatch\"\n"},
         1,
         -2},
        {"--json c.test",
         {R"({"domain":"c.test","error":{"code":null,"message":"no IPv4 address in the answer"},"type":"A"})"},
         {},
         1},
        {"'a.test\nb.test 6.6.6.6' 'x\x1b]0;t\x07' '\\\t\r\x7f\xc2\x9b' -",
         {},
         {"a.test\\nb.test 6.6.6.6: error 1 (malformed name)", "x\\x1b]0;t\\x07: error 1",
          "\\\\\\t\\r\\x7f\\u009b: error 1", "-: error 1"},
         1},
        // A mistyped option's value may be a secret: the error names the option only.
        {"--auth-secrte=hunter2 a.test", {}, {"qeldns: unknown option --auth-secrte\n"}, 2},
    };
    service.scriptResolves({ResolutionService::status(403, "\x1b[2J" + std::string(500000, 'x'))});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments.substr(0, 40));
        const size_t logins = service.logins();
        const auto [status, out] = run(c.arguments);
        EXPECT_EQ(status, c.status);
        const size_t made = service.logins() - logins;
        if (c.logins == -2) {
            EXPECT_TRUE(made == 1 || made == 2) << made;
        } else {
            EXPECT_EQ(made, c.logins >= 0   ? size_t(c.logins)
                            : c.status == 2 ? 0u
                                            : 1u)
                << "bad usage never logs in";
        }
        EXPECT_EQ(out, c.out);
        const auto bytes = scratch.read("err");
        const std::string errors(bytes.begin(), bytes.end());
        EXPECT_LT(errors.size(), 2000u) << "capped";
        size_t at = 0;
        for (const std::string& part : c.err) {
            at = errors.find(part, at);
            EXPECT_NE(at, std::string::npos) << part << " in " << errors.substr(0, 400);
        }
        EXPECT_EQ(errors.find_first_of("\x1b\x7f"), std::string::npos);
        EXPECT_EQ(errors.find("\nb.test 6.6.6.6"), std::string::npos) << "a forged line";
        EXPECT_EQ(errors.find("hunter2"), std::string::npos);
    }
}
