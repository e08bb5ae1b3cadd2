// The command-line rules: every option, any order, the limits and every usage error.

#include "cli/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using qx::cli::parseOptions;
using Status = qx::cli::ParseResult::Status;

namespace {

qx::cli::ParseResult parse(std::vector<std::string> args) { return parseOptions(args); }

std::vector<std::string> withIo(std::vector<std::string> args) {
    args.insert(args.end(), {"-o", "out.tif", "-i", "in.pcl"});
    return args;
}

// A usage error whose message names the offending argument and points to --help.
void expectUsageError(const std::vector<std::string>& args, const std::string& named) {
    const auto r = parseOptions(args);
    std::string joined;
    for (const auto& a : args)
        joined += a + " ";
    EXPECT_EQ(r.status, Status::UsageError) << joined;
    EXPECT_NE(r.error.find(named), std::string::npos) << joined << "-> " << r.error;
    EXPECT_NE(r.error.find("--help"), std::string::npos) << r.error;
    EXPECT_EQ(r.error.find('\n'), std::string::npos) << "one line";
}

} // namespace

TEST(Options, Defaults) {
    const auto r = parse({"-o", "out.tif", "-i", "in.pcl"});
    ASSERT_EQ(r.status, Status::Ok);
    const auto& o = r.options;
    EXPECT_EQ(o.input, "in.pcl");
    EXPECT_EQ(o.output, "out.tif");
    EXPECT_EQ(o.depth, 24);
    EXPECT_EQ(o.compression, 6);
    EXPECT_EQ(o.dpiX, 0);
    EXPECT_EQ(o.dpiY, 0);
    EXPECT_EQ(o.pageWidth, 0);
    EXPECT_EQ(o.pageHeight, 0);
    EXPECT_EQ(o.fax, -1);
    EXPECT_FALSE(o.writeLocal);
    EXPECT_TRUE(o.warnings.empty());
}

TEST(Options, EveryOptionInAnyOrder) {
    const auto r = parse({"-i", "a b.pcl", "-c", "3", "-gh", "2200", "-r", "200x150", "-writelocal", "y",
                          "-b", "8", "-gw", "1700", "-o", "x/y.tif"});
    ASSERT_EQ(r.status, Status::Ok) << r.error;
    const auto& o = r.options;
    EXPECT_EQ(o.input, "a b.pcl");
    EXPECT_EQ(o.output, "x/y.tif");
    EXPECT_EQ(o.dpiX, 200);
    EXPECT_EQ(o.dpiY, 150);
    EXPECT_EQ(o.depth, 8);
    EXPECT_EQ(o.compression, 3);
    EXPECT_EQ(o.pageWidth, 1700);
    EXPECT_EQ(o.pageHeight, 2200);
    EXPECT_TRUE(o.writeLocal);
}

TEST(Options, WhatTheFrontEndSends) {
    const auto r = parse({"-gw", "1700", "-gh", "2200", "-r", "200x200", "-b", "24", "-c", "2", "-writelocal", "n",
                          "-o", "/out/file.tif", "-i", "/in/file.pcl"});
    ASSERT_EQ(r.status, Status::Ok) << r.error;
    EXPECT_FALSE(r.options.writeLocal);
    const auto fax = parse({"-b", "1", "-c", "7", "-faxtif", "1", "-writelocal", "n", "-o", "o.tif", "-i", "i.pcl"});
    ASSERT_EQ(fax.status, Status::Ok) << fax.error;
    EXPECT_EQ(fax.options.fax, 1);
    EXPECT_EQ(fax.options.compression, 7);
    EXPECT_TRUE(fax.options.warnings.empty());
}

TEST(Options, AllDepthsAndCompressions) {
    for (int b : {1, 8, 24}) {
        for (int c = 0; c <= 7; ++c) {
            const auto r = parse(withIo({"-b", std::to_string(b), "-c", std::to_string(c)}));
            const bool ccitt = c == 4 || c == 5 || c == 7;
            if (ccitt && b != 1) {
                EXPECT_EQ(r.status, Status::UsageError) << b << " " << c;
                EXPECT_NE(r.error.find("-b 1"), std::string::npos) << r.error;
            } else {
                ASSERT_EQ(r.status, Status::Ok) << b << " " << c << ": " << r.error;
                EXPECT_EQ(r.options.depth, b);
                EXPECT_EQ(r.options.compression, c);
            }
        }
    }
    // The default depth is 24, so CCITT alone is an error too.
    expectUsageError(withIo({"-c", "4"}), "-c 4");
}

TEST(Options, Limits) {
    EXPECT_EQ(parse(withIo({"-r", "1x2400"})).status, Status::Ok);
    EXPECT_EQ(parse(withIo({"-r", "2400x1"})).status, Status::Ok);
    EXPECT_EQ(parse(withIo({"-gw", "1", "-gh", "65000"})).status, Status::Ok);
    expectUsageError(withIo({"-r", "2401x300"}), "2401x300");
    expectUsageError(withIo({"-r", "300x0"}), "300x0");
    expectUsageError(withIo({"-r", "0x300"}), "0x300");
    expectUsageError(withIo({"-gw", "65001"}), "65001");
    expectUsageError(withIo({"-gh", "0"}), "-gh");
    expectUsageError(withIo({"-gw", "99999999999999999999"}), "-gw");
}

TEST(Options, ValuesThatDoNotParse) {
    expectUsageError(withIo({"-r", "300"}), "-r");
    expectUsageError(withIo({"-r", "300x"}), "-r");
    expectUsageError(withIo({"-r", "x300"}), "-r");
    expectUsageError(withIo({"-r", "300x300x300"}), "-r");
    expectUsageError(withIo({"-r", "-300x300"}), "-r");
    expectUsageError(withIo({"-r", " 300x300"}), "-r");
    expectUsageError(withIo({"-b", "4"}), "-b");
    expectUsageError(withIo({"-b", "24bit"}), "24bit");
    expectUsageError(withIo({"-b", ""}), "-b");
    expectUsageError(withIo({"-c", "8"}), "-c");
    expectUsageError(withIo({"-c", "-1"}), "-c");
    expectUsageError(withIo({"-c", "zip"}), "zip");
    expectUsageError(withIo({"-gw", "12.5"}), "12.5");
    expectUsageError(withIo({"-gw", "+100"}), "+100");
    expectUsageError(withIo({"-faxtif", "2"}), "-faxtif");
    expectUsageError(withIo({"-faxtif", "yes"}), "-faxtif");
    expectUsageError(withIo({"-writelocal", "yes"}), "-writelocal");
    expectUsageError({"-o", "", "-i", "in.pcl"}, "-o");
    expectUsageError({"-o", "out.tif", "-i", ""}, "-i");
}

TEST(Options, UnknownOptionsStrayArgumentsAndMissingValues) {
    expectUsageError(withIo({"-x", "1"}), "-x");
    expectUsageError(withIo({"--colour", "24"}), "--colour");
    expectUsageError(withIo({"stray"}), "stray");
    expectUsageError({"-o", "out.tif", "-i", "in.pcl", "-b"}, "-b");
    expectUsageError({"-o", "-i", "in.pcl"}, "-o");
    expectUsageError({"-i", "in.pcl"}, "-o");
    expectUsageError({"-o", "out.tif"}, "-i");
    expectUsageError({}, "-o");
}

TEST(Options, HelpAndVersion) {
    EXPECT_EQ(parse({"-h"}).status, Status::Help);
    EXPECT_EQ(parse({"--help"}).status, Status::Help);
    EXPECT_EQ(parse({"-b", "8", "--help"}).status, Status::Help);
    EXPECT_EQ(parse({"--version"}).status, Status::Version);
    EXPECT_NE(qx::cli::usageText().find("-faxtif"), std::string::npos);
    EXPECT_EQ(qx::cli::versionText().rfind("quarvex ", 0), 0u);
}

TEST(Options, FaxOverridesWithAWarningEach) {
    const auto r = parse(withIo({"-faxtif", "0", "-b", "24", "-r", "600x600", "-gw", "100", "-gh", "200", "-c", "2"}));
    ASSERT_EQ(r.status, Status::Ok) << r.error;
    const auto& o = r.options;
    EXPECT_EQ(o.fax, 0);
    EXPECT_EQ(o.depth, 1);
    EXPECT_EQ(o.compression, 4) << "Group 3 one-dimensional";
    EXPECT_EQ(o.dpiX, 0);
    EXPECT_EQ(o.pageWidth, 0);
    EXPECT_EQ(o.pageHeight, 0);
    ASSERT_EQ(o.warnings.size(), 5u);
    EXPECT_NE(o.warnings[0].find("-b"), std::string::npos);
    EXPECT_NE(o.warnings[1].find("-r"), std::string::npos);
    EXPECT_NE(o.warnings[2].find("-gw"), std::string::npos);
    EXPECT_NE(o.warnings[3].find("-gh"), std::string::npos);
    EXPECT_NE(o.warnings[4].find("-c"), std::string::npos);
}

TEST(Options, FaxKeepsTheCcittChoice) {
    for (int c : {4, 5, 7}) {
        // With -faxtif the depth does not matter: CCITT with -b 24 is no error.
        const auto r = parse(withIo({"-faxtif", "1", "-b", "24", "-c", std::to_string(c)}));
        ASSERT_EQ(r.status, Status::Ok) << r.error;
        EXPECT_EQ(r.options.compression, c);
        EXPECT_EQ(r.options.warnings.size(), 1u) << "only -b is ignored";
    }
    const auto plain = parse(withIo({"-faxtif", "0"}));
    ASSERT_EQ(plain.status, Status::Ok);
    EXPECT_EQ(plain.options.compression, 4);
    EXPECT_TRUE(plain.options.warnings.empty());
}

TEST(Options, LaterValuesWin) {
    const auto r = parse(withIo({"-b", "8", "-b", "1"}));
    ASSERT_EQ(r.status, Status::Ok);
    EXPECT_EQ(r.options.depth, 1);
}
