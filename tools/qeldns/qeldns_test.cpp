// The qeldns command against a signature-checking resolution service on loopback.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/ResolutionService.h"
#include "support/ScratchDirectory.h"

using nlohmann::json;
using qel::test::ResolutionService;

namespace {

struct Outcome {
    int status = -1;
    std::vector<std::string> lines;
};

Outcome qeldns(const std::string& arguments, const std::string& errors = "/dev/null") {
    Outcome run;
    FILE* pipe = popen((std::string(QELDNS_BINARY) + " " + arguments + " 2>" + errors).c_str(), "r");
    if (!pipe) return run;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe)) {
        std::string line = buffer;
        if (!line.empty() && line.back() == '\n') line.pop_back();
        run.lines.push_back(line);
    }
    const int status = pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

class Qeldns : public testing::Test {
protected:
    Qeldns() {
        service.setAddresses("a.test", {"192.0.2.1", "2001:db8::1"});
        setenv("QELDNS_AUTH_ID", "acct", 1);
        setenv("QELDNS_AUTH_SECRET", "secret", 1);
    }
    std::string common() const {
        return "--server " + service.baseUrl() + " --store " + scratch.file("store.sqlite3") + " ";
    }

    qel::test::ScratchDirectory scratch;
    qel::test::ResolutionService service{"acct", "secret", "qeldns"};
};

TEST_F(Qeldns, PrintsAddressesAndExitsZeroWhenEveryNameIsAnswered) {
    const Outcome run = qeldns(common() + "--timeout 86400 -6 a.test");  // the longest allowed
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.lines, std::vector<std::string>{"a.test 2001:db8::1"});  // IPv6 only
    EXPECT_EQ(service.badSignatures(), 0u);
}

// Three lookups of one name: the first two fill the keys of both type suffixes, the third is
// a hit; then a malformed name fails, so the exit status is 1. -v adds each lookup's trace.
TEST_F(Qeldns, JsonShowsTheSourceOfEachAnswerItsTraceAndTheErrorsWithTheirCodes) {
    const Outcome run = qeldns(common() + "-v --json --repeat 3 a.test 192.168.1.1");
    EXPECT_EQ(run.status, 1);
    ASSERT_EQ(run.lines.size(), 6u);
    const json first = json::parse(run.lines[0]), hit = json::parse(run.lines[2]),
               refused = json::parse(run.lines[3]);
    EXPECT_EQ(first["source"], "network");
    EXPECT_EQ(first["trace"]["source"], "service");
    EXPECT_EQ(first["trace"]["attempts"], 1);
    EXPECT_EQ(first["trace"]["nodes"], json({service.baseUrl()}));
    EXPECT_EQ(first["trace"]["cache_key"], "a.test_v6");
    EXPECT_EQ(hit["source"], "cache");
    EXPECT_EQ(hit["addresses"], json({"192.0.2.1"}));
    EXPECT_EQ(hit["trace"]["source"], "memory");
    EXPECT_EQ(hit["trace"]["cache_key"], "a.test_v4");
    EXPECT_EQ(refused["domain"], "192.168.1.1");
    EXPECT_EQ(refused["error"]["code"], 1);
    EXPECT_EQ(refused["error"]["message"], "域名格式错误");
    EXPECT_EQ(refused["trace"]["source"], "refused");
    EXPECT_EQ(refused["trace"]["error_code"], 1);
    EXPECT_EQ(service.resolvedHosts().size(), 2u);
    EXPECT_FALSE(json::parse(qeldns(common() + "--json a.test").lines.at(0)).contains("trace"));
}

TEST_F(Qeldns, WhatCameFromOutsideIsCheckedEscapedAndCappedBeforeItIsPrinted) {
    const std::string forged = "192.0.2.9\nb.test 6.6.6.6", escaped = "192.0.2.9\\nb.test 6.6.6.6";
    service.setAddresses("b.test", {"192.0.2.5", "<script>", forged, "2001:db8::5"});
    service.setAddresses("c.test", {"not-an-ip"});
    const std::string huge = "\x1b[2J" + std::string(500000, 'x');
    struct {
        std::string arguments, message;  // message: the resolve answers 403 with it
        std::vector<std::string> out;   // with --json, each object without "microseconds"
        std::vector<std::string> err;   // in the order given
        int status;
    } cases[] = {
        {"b.test", "", {"b.test 192.0.2.5"}, {"\"<script>\"", escaped, "2001:db8::5"}, 0},
        {"-6 b.test", "", {"b.test 2001:db8::5"}, {"192.0.2.5", "<script>"}, 0},
        {"c.test", "", {}, {"c.test: no IPv4 address in the answer"}, 1},
        {"--json b.test c.test", "",
         {R"({"addresses":["192.0.2.5"],"domain":"b.test","source":"network","type":"A"})",
          R"({"domain":"c.test","error":{"code":null,"message":"no IPv4 address in the answer"},"type":"A"})"},
         {escaped}, 1},
        {"'a.test\nb.test 6.6.6.6' 'x\x1b]0;t\x07'", "", {},
         {"a.test\\nb.test 6.6.6.6: error 1", "x\\x1b]0;t\\x07: error 1"}, 1},
        {"a.test", huge, {}, {"a.test: error 403: \\x1b[2Jxxx", "xxx..."}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments.substr(0, 40));
        if (!c.message.empty()) service.scriptResolves({ResolutionService::status(403, c.message)});
        const Outcome run = qeldns(common() + "--no-cache " + c.arguments, scratch.file("err"));
        std::vector<std::string> out = run.lines;
        for (std::string& line : out) {
            if (c.arguments.find("--json") != std::string::npos) {
                json object = json::parse(line);
                object.erase("microseconds");
                line = object.dump();
            }
        }
        EXPECT_EQ(out, c.out);
        const auto err = scratch.read("err");
        const std::string errors(err.begin(), err.end());
        EXPECT_LT(errors.size(), 2000u) << "capped";
        size_t at = 0;
        for (const std::string& part : c.err) {
            at = errors.find(part, at);
            EXPECT_NE(at, std::string::npos) << part << " in " << errors.substr(0, 400);
        }
        EXPECT_EQ(errors.find('\x1b'), std::string::npos);
        EXPECT_EQ(errors.find("\nb.test 6.6.6.6"), std::string::npos) << "a forged line";
        EXPECT_EQ(run.status, c.status);
    }
}

TEST_F(Qeldns, BadUsageExitsTwo) {
    // A mistyped option's value may be a secret: the error names the option only.
    const auto mistyped = qeldns("--auth-secrte=hunter2 a.test", "&1");
    EXPECT_EQ(mistyped.status, 2);
    ASSERT_FALSE(mistyped.lines.empty());
    EXPECT_EQ(mistyped.lines[0], "qeldns: unknown option --auth-secrte");
    EXPECT_EQ(qeldns("--timeout soon a.test").status, 2);
    EXPECT_EQ(qeldns(common() + "--timeout 1e10 a.test").status, 2);
    unsetenv("QELDNS_AUTH_SECRET");
    EXPECT_EQ(qeldns(common() + "a.test").status, 2);
    EXPECT_EQ(service.logins(), 0u);
}

}  // namespace
