#include "package_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "shell.h"

namespace nxatest {

namespace {

bool accepts(int port) {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool const connected = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

void run(std::string const& command) {
    ShellResult const result = shell(command);
    ASSERT_EQ(result.status, 0) << command << "\n" << result.output;
}

}  // namespace

int unusedPort() {
    int const fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

PackageServer::PackageServer(unsigned slowBytesPerSecond) {
    char pattern[] = "/tmp/nxa-package-server.XXXXXX";
    char const* made = ::mkdtemp(pattern);
    if (made == nullptr) ADD_FAILURE() << "cannot make a folder for nginx";
    dir_ = made == nullptr ? "/tmp" : made;
    run("mkdir -p " + dir_ + "/files " + dir_ + "/temp");
    httpPort_ = unusedPort();
    httpsPort_ = unusedPort();
    makeCertificates();
    writeConfiguration(slowBytesPerSecond);
}

PackageServer::~PackageServer() {
    stop();
    if (dir_.rfind("/tmp/nxa-package-server.", 0) == 0) shell("rm -rf " + dir_);
}

// A CA, a server certificate it signs for the loopback address and
// localhost, and another CA.
void PackageServer::makeCertificates() const {
    std::string const key = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 ";
    run("cd " + dir_ + " && " + key + "-keyout ca.key -out ca.pem -subj /CN=nxa-test-ca 2>&1");
    run("cd " + dir_ + " && " + key + "-keyout other-ca.key -out other-ca.pem -subj /CN=nxa-other-ca 2>&1");
    run("cd " + dir_ + " && printf 'subjectAltName=IP:127.0.0.1,DNS:localhost\\n' > server.ext && " +
        "openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout server.key -out server.csr " +
        "-subj /CN=localhost 2>&1 && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key " +
        "-CAcreateserial -days 2 -extfile server.ext -out server.pem 2>&1");
}

void PackageServer::writeConfiguration(unsigned slowBytesPerSecond) const {
    std::string const files = this->files();
    std::string const temp = dir_ + "/temp";
    writeFile(dir_ + "/nginx.conf",
              "daemon off;\n"
              "master_process off;\n"
              "pid " +
                  dir_ +
                  "/nginx.pid;\n"
                  "error_log " +
                  dir_ +
                  "/error.log;\n"
                  "events { worker_connections 64; }\n"
                  "http {\n"
                  "  log_format tests '$status \"$http_range\" $request_uri';\n"
                  "  access_log " +
                  dir_ +
                  "/access.log tests;\n"
                  "  client_body_temp_path " +
                  temp +
                  "/body;\n"
                  "  proxy_temp_path " +
                  temp +
                  "/proxy;\n"
                  "  fastcgi_temp_path " +
                  temp +
                  "/fastcgi;\n"
                  "  uwsgi_temp_path " +
                  temp +
                  "/uwsgi;\n"
                  "  scgi_temp_path " +
                  temp +
                  "/scgi;\n"
                  "  default_type application/octet-stream;\n"
                  "  server {\n"
                  "    listen 127.0.0.1:" +
                  std::to_string(httpPort_) +
                  ";\n"
                  "    listen 127.0.0.1:" +
                  std::to_string(httpsPort_) +
                  " ssl;\n"
                  "    ssl_certificate " +
                  dir_ +
                  "/server.pem;\n"
                  "    ssl_certificate_key " +
                  dir_ +
                  "/server.key;\n"
                  "    root " +
                  files +
                  ";\n"
                  "    location /slow/ { alias " +
                  files + "/; limit_rate " + std::to_string(slowBytesPerSecond) +
                  "; }\n"
                  "    location /norange/ { alias " +
                  files +
                  "/; max_ranges 0; }\n"
                  "  }\n"
                  "}\n");
}

void PackageServer::start() {
    if (nginx_) return;
    nginx_ = std::make_unique<Background>("exec nginx -p " + dir_ + " -c " + dir_ + "/nginx.conf -e " + dir_ +
                                          "/error.log");
    bool const up = waitUntil([this] { return accepts(httpPort_) && accepts(httpsPort_); });
    ASSERT_TRUE(up) << "nginx did not start: " << nginx_->output() << readFile(dir_ + "/error.log");
}

void PackageServer::stop() {
    if (!nginx_) return;
    nginx_->signal(SIGTERM);
    EXPECT_NE(nginx_->wait(), -1) << "nginx did not end";
    nginx_.reset();
}

std::string PackageServer::url(std::string const& path, bool tls) const {
    if (tls) return "https://127.0.0.1:" + std::to_string(httpsPort_) + "/" + path;
    return "http://127.0.0.1:" + std::to_string(httpPort_) + "/" + path;
}

std::string PackageServer::accessLog() const {
    return readFile(dir_ + "/access.log");
}

}  // namespace nxatest
