// Signatures in minisign's format against the minisign program itself: its
// keys and signatures read and checked here, signatures made here checked by
// it, and what a damaged or foreign signature gets.
#include <gtest/gtest.h>
#include <nxahost/minisign.h>
#include <nxahost/trusted_keys.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "shell.h"

namespace hosttest {
namespace {

namespace minisign = nxahost::minisign;

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

void writeFile(std::string const& path, std::string const& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// Flips one bit of the byte at `at` of the file.
void flipByte(std::string const& path, std::size_t at) {
    std::string bytes = readFile(path);
    bytes[at] = static_cast<char>(bytes[at] ^ 0x01);
    writeFile(path, bytes);
}

class Minisign : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/minisign-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        ASSERT_EQ(run("minisign -G -W -p k.pub -s k.key").status, 0);
        writeFile(dir + "/nxa.zip", std::string(100000, 'p') + "the package");
    }
    void TearDown() override { nxatest::shell("rm -rf '" + dir + "'"); }

    nxatest::ShellResult run(std::string const& command) {
        return nxatest::shell("cd '" + dir + "' && " + command);
    }
    std::string path(std::string const& name) const { return dir + "/" + name; }
    // The key id minisign printed in the public key's comment.
    std::string printedKeyId() {
        std::string const text = readFile(path("k.pub"));
        std::size_t const at = text.find("public key ") + 11;
        return text.substr(at, text.find('\n', at) - at);
    }
    std::string verifyHere(std::string const& package = "nxa.zip",
                           std::string const& signature = "nxa.zip.minisig") {
        nxahost::PackageSigner signer;
        return nxahost::verifyPackage(path(package), path(signature), nxahost::TrustedKeys::load(dir),
                                      signer);
    }

    std::string dir;
};

TEST(MinisignKeyId, IsPrintedAsMinisignDoesWithoutLeadingZeros) {
    // Stored little-endian: the number is 0x066BC72623273955.
    minisign::KeyId const id{0x55, 0x39, 0x27, 0x23, 0x26, 0xC7, 0x6B, 0x06};
    EXPECT_EQ(minisign::keyIdText(id), "66BC72623273955");
    EXPECT_EQ(minisign::keyIdText(minisign::KeyId{}), "0");
    EXPECT_EQ(minisign::keyIdText(minisign::KeyId{1, 2, 3, 4, 5, 6, 7, 0xF8}), "F807060504030201");
}

TEST_F(Minisign, ReadsMinisignsPublicKeyWithTheIdItPrints) {
    minisign::PublicKey const key = minisign::parsePublicKey(readFile(path("k.pub")));
    EXPECT_EQ(minisign::keyIdText(key.id), printedKeyId());
    // The base64 line alone is a key too.
    std::string const line = readFile(path("k.pub")).substr(readFile(path("k.pub")).find('\n') + 1);
    EXPECT_EQ(minisign::parsePublicKey(line).id, key.id);
}

TEST_F(Minisign, APackageSignedByMinisignVerifiesWithItsSigner) {
    ASSERT_EQ(run("minisign -S -s k.key -m nxa.zip -t 'version:2.0 by the build'").status, 0);
    nxahost::PackageSigner signer;
    EXPECT_EQ(nxahost::verifyPackage(path("nxa.zip"), path("nxa.zip.minisig"),
                                     nxahost::TrustedKeys::load(dir), signer),
              "");
    EXPECT_EQ(signer.keyId, printedKeyId());
    EXPECT_EQ(signer.trustedComment, "version:2.0 by the build");
    EXPECT_EQ(nxahost::trustedCommentField(signer.trustedComment, "version"), "2.0");
}

TEST_F(Minisign, ALegacySignatureOverTheWholeFileVerifiesToo) {
    ASSERT_EQ(run("minisign -S -l -s k.key -m nxa.zip").status, 0);
    EXPECT_EQ(verifyHere(), "");
}

TEST_F(Minisign, ASignatureMadeHereVerifiesWithMinisign) {
    minisign::SecretKey const key = minisign::parseSecretKey(readFile(path("k.key")), [] {
        ADD_FAILURE() << "an unencrypted key asks for no password";
        return std::string();
    });
    std::string const comment = "timestamp:1795600000\tfile:nxa.zip\tversion:3.1";
    writeFile(path("nxa.zip.minisig"), minisign::sign(key, minisign::hashFile(path("nxa.zip")), comment));
    nxatest::ShellResult const checked = run("minisign -V -p k.pub -m nxa.zip");
    EXPECT_EQ(checked.status, 0) << checked.output;
    EXPECT_NE(checked.output.find("Trusted comment: " + comment), std::string::npos) << checked.output;
    EXPECT_EQ(verifyHere(), "");
}

TEST_F(Minisign, AnEncryptedSecretKeyOpensWithItsPasswordOnly) {
    ASSERT_EQ(run("printf 'pw-of-the-key\\npw-of-the-key\\n' | minisign -G -p e.pub -s e.key").status, 0);
    std::string const text = readFile(path("e.key"));
    EXPECT_TRUE(minisign::needsPassword(text));
    EXPECT_FALSE(minisign::needsPassword(readFile(path("k.key"))));
    try {
        minisign::parseSecretKey(text, [] { return std::string("wrong"); });
        ADD_FAILURE() << "a wrong password opened the key";
    } catch (std::runtime_error const& e) {
        EXPECT_STREQ(e.what(), "wrong password or damaged secret key");
    }
    minisign::SecretKey const key =
        minisign::parseSecretKey(text, [] { return std::string("pw-of-the-key"); });
    writeFile(path("nxa.zip.minisig"), minisign::sign(key, minisign::hashFile(path("nxa.zip")), "version:1"));
    EXPECT_EQ(run("minisign -V -p e.pub -m nxa.zip").status, 0);
}

TEST_F(Minisign, ATamperedByteAnywhereIsRefused) {
    ASSERT_EQ(run("minisign -S -s k.key -m nxa.zip -t 'version:2.0'").status, 0);
    std::string const good = readFile(path("nxa.zip.minisig"));
    flipByte(path("nxa.zip"), 500);
    EXPECT_EQ(verifyHere(), "the signature does not match the package (key " + printedKeyId() + ")");
    flipByte(path("nxa.zip"), 500);
    ASSERT_EQ(verifyHere(), "");

    // The trusted comment, changed after signing.
    std::string comment = good;
    comment.replace(comment.find("version:2.0"), 11, "version:9.9");
    writeFile(path("nxa.zip.minisig"), comment);
    EXPECT_EQ(verifyHere(), "the trusted comment does not match its signature (key " + printedKeyId() + ")");
    // One byte of the signature itself (inside its base64 line).
    std::string signature = good;
    std::size_t const line = signature.find('\n') + 1;
    signature[line + 20] = signature[line + 20] == 'A' ? 'B' : 'A';
    writeFile(path("nxa.zip.minisig"), signature);
    EXPECT_NE(verifyHere(), "");
}

TEST_F(Minisign, AKeyThatIsNotTrustedOrNoSignatureAtAllIsRefused) {
    ASSERT_EQ(run("mkdir other && minisign -G -W -p other/o.pub -s other/o.key && "
                  "minisign -S -s other/o.key -m nxa.zip")
                  .status,
              0);
    std::string const otherId =
        minisign::keyIdText(minisign::parsePublicKey(readFile(path("other/o.pub"))).id);
    EXPECT_EQ(verifyHere(), "signed by a key that is not trusted (" + otherId + ")");
    EXPECT_EQ(verifyHere("nxa.zip", "nothing.minisig"),
              "no signature: " + path("nothing.minisig") + ": No such file or directory");
}

TEST_F(Minisign, WhatIsNoSignatureIsRefusedWithTheReason) {
    writeFile(path("a.minisig"), "not a signature at all\n");
    EXPECT_EQ(verifyHere("nxa.zip", "a.minisig"),
              "the signature is not minisign's: not a minisign signature");
    writeFile(path("b.minisig"), std::string(5000, 'x'));
    EXPECT_EQ(verifyHere("nxa.zip", "b.minisig"), "the signature is not minisign's: larger than a signature");
    ASSERT_EQ(run("minisign -S -s k.key -m nxa.zip").status, 0);
    // "Ex" is no algorithm: base64 of its first bytes rewritten.
    std::string text = readFile(path("nxa.zip.minisig"));
    std::size_t const line = text.find('\n') + 1;
    text.replace(line, 4, "RXgA");
    writeFile(path("c.minisig"), text);
    EXPECT_EQ(verifyHere("nxa.zip", "c.minisig"),
              "the signature is not minisign's: a signature of an unknown algorithm");
    std::string noComment = readFile(path("nxa.zip.minisig"));
    noComment.replace(noComment.find("\ntrusted comment: ") + 1, 17, "comment: ");
    writeFile(path("d.minisig"), noComment);
    EXPECT_EQ(verifyHere("nxa.zip", "d.minisig"), "the signature is not minisign's: no trusted comment");
}

TEST_F(Minisign, TrustedKeysAreEveryPublicKeyFileOfTheFolderAndNameTheRest) {
    ASSERT_EQ(run("minisign -G -W -p second.pub -s second.key").status, 0);
    writeFile(path("broken.pub"), "untrusted comment: nothing\nnot base64 at all\n");
    writeFile(path("notes.txt"), "not a key, not a .pub");
    nxahost::TrustedKeys const keys = nxahost::TrustedKeys::load(dir);
    EXPECT_EQ(keys.size(), 2u);
    ASSERT_EQ(keys.problems().size(), 1u);
    EXPECT_EQ(keys.problems()[0], path("broken.pub") + ": not a minisign public key");
    EXPECT_TRUE(nxahost::TrustedKeys::load(dir + "/nothing-here").empty());
}

TEST(TrustedComment, FieldsAreNameColonValueWordsSeparatedByTabsOrBlanks) {
    std::string const comment = "timestamp:1700000000\tfile:nxa.zip\tversion:2.10 hashed";
    EXPECT_EQ(nxahost::trustedCommentField(comment, "version"), "2.10");
    EXPECT_EQ(nxahost::trustedCommentField(comment, "file"), "nxa.zip");
    EXPECT_EQ(nxahost::trustedCommentField(comment, "signer"), "");
}

}  // namespace
}  // namespace hosttest
