// A real HTTP and HTTPS server for the tests that download: Debian's nginx,
// with a configuration of its own and certificates from a CA made here.
#pragma once

#include <memory>
#include <string>

#include "background.h"

namespace nxatest {

// nginx serving the files of files() on two loopback ports, one plain and one
// with TLS (a certificate for 127.0.0.1 and localhost, signed by caFile()).
// Under /slow/ the same files come at most `slowBytesPerSecond` a second;
// under /norange/ range requests are ignored (the whole file, status 200).
// Every request goes to accessLog() as "<status> <Range header> <uri>". Made
// in a folder of its own under /tmp, removed with it; the server is stopped
// by the destructor.
class PackageServer {
public:
    explicit PackageServer(unsigned slowBytesPerSecond = 1 << 20);
    ~PackageServer();
    PackageServer(PackageServer const&) = delete;
    PackageServer& operator=(PackageServer const&) = delete;

    // Starts nginx and waits until it accepts connections on both ports.
    void start();
    // Stops nginx at once (its connections are cut) and waits for its end.
    void stop();

    // The folder served.
    std::string files() const { return dir_ + "/files"; }
    // http://127.0.0.1:<port>/<path>, or https:// on the TLS port.
    std::string url(std::string const& path, bool tls = false) const;
    // The test CA's certificate, and one of another CA that signed nothing here.
    std::string caFile() const { return dir_ + "/ca.pem"; }
    std::string otherCaFile() const { return dir_ + "/other-ca.pem"; }
    // The access log so far.
    std::string accessLog() const;

private:
    void makeCertificates() const;
    void writeConfiguration(unsigned slowBytesPerSecond) const;

    std::string dir_;
    int httpPort_ = 0;
    int httpsPort_ = 0;
    std::unique_ptr<Background> nginx_;
};

// A loopback TCP port nothing listens on right now.
int unusedPort();

}  // namespace nxatest
