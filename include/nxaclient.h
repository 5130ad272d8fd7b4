// libnxaclient: hosting of small user programs ("modules") in a device's
// service daemon, and building them.
//
// The host creates one NXAClient, configures module names on its `modules`
// registry, calls run(), and then drives everything from its own
// single-threaded polling loop: addFds(), wait (waitFds), handleInput(),
// handleOutput(), and handle() for every bus message it receives. The library
// has no threads and no timers. All diagnostics are trace lines on standard
// output: "[LEVEL] Component::function() message".
#pragma once

#include <vlplatform/exceptions.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/messages.h>
#include <vlplatform/proc.h>
#include <vlplatform/vlpbus_client.h>

#include <chrono>
#include <deque>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

// Tests may define this type to look at the private state of the classes below.
struct NXATestAccess;

// The facade the host creates: configuration, the module registry, the polling
// entry points and the build and packaging operations. Neither copied nor moved.
class NXAClient {
public:
    class Module;
    class Modules;
    class Peer;

    // One chunk of a module's terminal output, exactly as read. Made once by
    // Peers::push and shared, unchanged, by the queues of all peers of the module.
    struct bufdata_t {
        std::string bytes;
    };

    // One element of a peer's queue: a chunk and how many of its bytes this
    // peer's consumer has already been given (only telnet peers advance it).
    struct bufblock_t {
        unsigned long long offset;
        std::shared_ptr<bufdata_t> data;
    };

    // Base of the consumers of a module's output. Each peer keeps its own queue
    // of at most queueBound chunks: pushing more drops the oldest. A peer refers to
    // its module, which must outlive it; the module's peer set owns it.
    class Peer {
    public:
        static constexpr std::size_t queueBound = 10;

        Peer(Module const& module, std::string const& id);
        virtual ~Peer();
        Peer(Peer const&) = delete;
        Peer& operator=(Peer const&) = delete;

        // Releases the peer's own resource (a socket), if it has one.
        virtual void close() = 0;
        // Registers descriptors for the next wait. The base registers nothing.
        virtual void addFds(FdSet& rd, FdSet& wr);
        // Appends input for the module's program to `in`; true when the peer is
        // finished and is to be removed.
        virtual bool forward(FdSet const& rd, std::string& in) = 0;
        // Delivers queued output to the consumer.
        virtual void write(FdSet const& wr) = 0;

        // Appends a chunk to the queue and keeps its newest queueBound blocks.
        void push(std::shared_ptr<bufdata_t> const& chunk);

        std::string const& getId() const { return id; }
        std::deque<bufblock_t> const& getQueue() const { return queue; }

        // What became of the output pushed to this consumer, in bytes unless
        // named otherwise. At every moment delivered + lost + queued (queuedBytes())
        // equals pushed. The seed from the run log counts as pushed.
        struct Counters {
            unsigned long long pushed = 0;
            unsigned long long delivered =
                0;  // written to the client, sent on the bus, moved out of the run log
            unsigned long long lostChunks = 0;  // dropped by the queue bound
            unsigned long long lostBytes = 0;   // what those chunks held that had not been delivered
        };
        Counters const& getCounters() const { return counters; }
        // The bytes queued and not yet delivered (a partly delivered front block counts its rest).
        unsigned long long queuedBytes() const;
        // When the peer was made.
        std::chrono::steady_clock::time_point getAttachedAt() const { return attachedAt; }

    protected:
        // Starts the queue as a copy of the module's run-log queue, so a new
        // consumer first receives the module's most recent output.
        void seedFromRunLog();
        // Counts n bytes of the front block as delivered (the kinds call it as they deliver).
        void countDelivered(unsigned long long n) { counters.delivered += n; }

        Module const& module;
        std::string id;
        std::deque<bufblock_t> queue;
        Counters counters;
        std::chrono::steady_clock::time_point attachedAt;

        friend struct ::NXATestAccess;
    };

    // A module's set of peers, keyed by id and visited in ascending id order.
    // It owns its peers. Exceptions of a peer's forward() or write() leave the
    // visit at once; the failing peer stays in the set.
    class Peers {
    public:
        // Takes ownership of every peer in `initial`, in list order; a peer whose
        // id is already present is destroyed at once.
        Peers(Module const& module, std::initializer_list<Peer*> initial);
        ~Peers();
        Peers(Peers const&) = delete;
        Peers& operator=(Peers const&) = delete;

        // Adopts the accepted connection fd as telnet peer "telnet:<fd>". When that
        // id exists already, warns and leaves fd open and untracked.
        void add(int fd);
        // Adds a bus peer for the subscriber `id`; warns when the id exists.
        void add(std::string const& id);
        // Adds `peer` under its own id; false, and it is destroyed, when the
        // id exists already.
        bool adopt(std::unique_ptr<Peer> peer);
        // Removes and destroys the peer `id` (of any kind); warns when absent.
        void erase(std::string const& id);
        // Copies the bytes once into a shared chunk queued by every peer.
        // Nothing is copied when the set is empty.
        void push(unsigned char const* data, unsigned long length) const;
        // Lets every peer append its input to `in`; removes the finished ones.
        void forward(FdSet const& rd, std::string& in);
        // Lets every peer write.
        void write(FdSet const& wr) const;
        // Lets every peer register its descriptors.
        void addFds(FdSet& rd, FdSet& wr) const;
        // Closes every peer; they stay in the set.
        void close() const;

        // The peer with this id, or null.
        Peer* find(std::string const& id) const;
        std::size_t size() const { return peers.size(); }
        // Every peer, in id order.
        std::vector<Peer const*> getPeers() const;

    private:
        // Notes whether every peer is a run log, whose addFds, forward and
        // write do nothing: the visits can then be left out, which is what
        // keeps an idle module cheap on every turn of the host's loop.
        void notePeersChanged();

        Module const& module;
        std::map<std::string, std::unique_ptr<Peer>> peers;
        bool onlyRunLogs = true;

        friend struct ::NXATestAccess;
    };

    // A TCP connection accepted on a module's port. Output goes to the client
    // unchanged; what the client types goes to the module's program unchanged.
    class PeerTelnet : public Peer {
    public:
        // Adopts fd (closed by close() or the destructor).
        PeerTelnet(Module const& module, std::string const& id, int fd);
        ~PeerTelnet() override;

        void close() override;
        void addFds(FdSet& rd, FdSet& wr) override;
        // Reads at most 512 bytes. Throws IOException "cannot read from <id>" on a
        // read error; returns true (socket closed) at end of stream.
        bool forward(FdSet const& rd, std::string& in) override;
        // Writes the front chunk once, resuming partial writes. Throws IOException
        // "cannot write to <id>" on a write error, VLException "EOF on <id>" (socket
        // closed) when nothing could be written.
        void write(FdSet const& wr) override;
        // The connection's descriptor; -1 once it is closed.
        int getFd() const { return fd; }

    private:
        int fd;

        friend struct ::NXATestAccess;
    };

    // A bus subscriber of the module's output: one kind-34 system message per
    // chunk, sent over the module's own bus connection.
    class PeerVLPBus : public Peer {
    public:
        PeerVLPBus(Module const& module, std::string const& id);
        ~PeerVLPBus() override;

        void close() override;
        void addFds(FdSet& rd, FdSet& wr) override;
        bool forward(FdSet const& rd, std::string& in) override;
        // Sends the front chunk to the subscriber and drops it from the queue.
        void write(FdSet const& wr) override;
    };

    // A consumer inside the host's own process (a browser terminal of the
    // host's console): served like a TCP client, with the module's recent
    // output first and then everything printed, its queue bounded and counted
    // the same way, but without a descriptor: the host takes its output and
    // gives what it types through the module (Module::attachLocal and after).
    class PeerLocal : public Peer {
    public:
        // `address` says where the consumer is (for the operator); may be empty.
        PeerLocal(Module const& module, std::string const& id, std::string address);
        ~PeerLocal() override;

        void close() override;
        bool forward(FdSet const& rd, std::string& in) override;
        void write(FdSet const& wr) override;
        // Appends queued output to `out`, whole chunks first, at most `most`
        // bytes (a chunk taken in part keeps its rest at the front); what is
        // taken counts as delivered. Returns how many bytes were taken.
        std::size_t take(std::string& out, std::size_t most);
        std::string const& getAddress() const { return address; }

    private:
        std::string address;
    };

    // The module's run log: a peer nobody drains, holding the latest output.
    class PeerLog : public Peer {
    public:
        explicit PeerLog(Module const& module);
        ~PeerLog() override;

        void close() override;
        bool forward(FdSet const& rd, std::string& in) override;
        void write(FdSet const& wr) override;
        // Appends the logged chunks, oldest first, to `out` and empties the log.
        void move(std::string& out);
    };

    // One installed module: its listening TCP port, its pseudo-terminal, its own
    // bus connection ("NXAModule_<name>") and, once run, its program
    // "/var/opt/velmora/nxa/<name>/<name>" as a child on that terminal.
    // It owns its peer set (which starts with the run log, id "client"), its
    // descriptors and its bus client. Neither copied nor moved; its peers refer to it.
    class Module {
    public:
        // Manifest architecture -> machines on which such a module may run.
        // "noarch" modules run everywhere besides.
        static std::map<std::string, std::set<std::string>> const archmap;

        // Opens the socket (listening on all IPv4 addresses at `port`, backlog 1;
        // a port that cannot be bound is reported as an ERROR line and tolerated),
        // the raw terminal pair and the bus connection (ten one-second retries,
        // a WARNING line each), and announces the module as "running" to
        // "VLPBusServer". Throws IOException ("create socket", "cannot set
        // SO_REUSEADDR", "cannot open PTY pair") or VLException ("[ERROR]
        // Connection to VLPBus server failed"); on a throw the descriptors and the
        // bus client opened so far are left open and allocated.
        Module(std::string const& name, unsigned short port, Proc& proc);
        // stop(), then frees the bus client. Never throws (an exception ends the process).
        ~Module();
        Module(Module const&) = delete;
        Module& operator=(Module const&) = delete;

        // Whether the manifest dir/<name>/Manifest allows this module on the machine
        // `machinearch`. Throws IOException(errno, path) when the manifest does not
        // exist; an unreadable or unparsable manifest is reported and gives false.
        bool scan(std::string const& dir, std::string const& machinearch) const;
        // Appends the run log to `out` and empties it. Nothing once the run log
        // has been erased from the peer set.
        void getRunLog(std::string& out) const;

        // Forks the program's child and makes the terminal raw. Returns in the
        // parent. In the child it returns only by exception (IOException "cannot
        // set session leader" or "cannot replace stdin/stdout/stderr of NXA
        // child"), which the caller's copy of the process must handle. On an
        // IOException (also "cannot fork", "tcgetattr", "tcsetattr") the terminal
        // pair is closed first.
        void run();
        // Replaces the (child) process by the module's program; never returns.
        // When the program cannot be started, writes "cannot exec" on standard
        // error and exits with status 1.
        [[noreturn]] void exec();
        // Closes the peers and descriptors, stops the child, leaves the bus.
        // The descriptor fields keep their numbers: a second stop() closes them again.
        void stop();

        // Registers the listening socket and the bus connection for reading, the
        // terminal for reading (and for writing while input for the program waits),
        // and the peers' descriptors.
        void addFds(FdSet& rd, FdSet& wr) const;
        // Serves what is ready: accepts one telnet client, reads at most 512 bytes
        // of the program's output for the peers, reads the bus, then collects the
        // peers' input for the program. Throws IOException "cannot read from
        // PTTY" on a terminal read error; peers' exceptions pass through.
        void handleInput(FdSet const& rd);
        // Writes waiting input to the program's terminal, then lets the peers
        // write. Throws IOException "cannot write to PTY master".
        void handleOutput(FdSet const& wr);
        // Acts on the kind 4 system messages "71-NXAStartOutput" (adds a bus peer
        // for the sender) and "72-NXAStopOutput" (erases it); ignores the rest.
        void handleMessage(MessageBase const& msg);
        // Pushes the message's text to every peer as if the program had printed it.
        void handleInput(SystemMessage const& sm);

        // What the peers use of their module.
        std::string const& getName() const { return name; }
        VLPBusClient* getBus() const { return bus; }
        // The run-log peer, or null once it has been erased from the peer set.
        PeerLog* getRunLogPeer() const;

        // --- Supervision by a host that runs unattended ---

        // The process id of the program's child; -1 before run() and after stop().
        pid_t getChildPid() const { return childpid; }
        // How many bytes of the program's output wait in the terminal, not yet
        // read by handleInput (0 without a terminal). A program that has ended
        // may still have output waiting there.
        std::size_t pendingOutput() const;
        // Starts the program again on a fresh terminal, keeping everything else:
        // the listening socket, every peer (clients and subscribers stay
        // attached and receive the new program's output) and the bus
        // connection. The old child, if any, is stopped first (as stop() does,
        // reaped, also when it has ended already); input typed for it and not
        // yet written is dropped. Then the new terminal pair is opened and the
        // child forked as by run(), and the module announces "running" to
        // "VLPBusServer". Throws IOException "cannot open PTY pair" (the module
        // then has no terminal and no child until the next restart) and what
        // run() throws, which in the forked child must be handled as after run().
        void restart();

        // The same restart in steps, for a host that must go on serving while
        // a program ends: nothing here waits.
        //
        // Asks the program to end: SIGTERM to its child and to the child's
        // process group, then returns at once. The child stays the module's
        // (getChildPid) until reapProgram() collects it, and its terminal is
        // still read, so what it prints while it ends reaches the consumers.
        // Nothing when the module has no child.
        void endProgram();
        // SIGKILL to the program's child and its process group, for a program
        // that did not end in time. Nothing when the module has no child.
        void killProgram();
        // Collects the program's child if it has ended, never waiting. True
        // when the module has no child left (collected now, or none before);
        // getChildPid() is then -1. False while the child runs.
        bool reapProgram();
        // Starts the program again once reapProgram() gave true: what restart()
        // does after the old child is gone (input typed for the old program
        // dropped, a fresh terminal pair, the child forked as by run(), "running"
        // announced). Throws std::logic_error "the program still runs" while a
        // child is left, and otherwise what restart() throws.
        void startProgram();
        // Drops the input typed for the program and not yet written to its
        // terminal, returning its memory. Returns how many bytes were dropped.
        std::size_t dropTypedInput();
        // Sends the state `state` (one of VLPBus::statusNames) to "VLPBusServer"
        // over the module's bus connection, as construction sends "running".
        // Nothing when the connection is down.
        void announce(std::string const& state) const;
        // Whether the module's bus connection is up.
        bool busConnected() const;
        // One attempt to connect the module's bus connection again when it is
        // down (a broker that went away and came back), waiting at most the bus
        // client's connect wait; the subscribers are kept and receive output
        // again once it is up, and the module announces "running" again.
        // Returns whether it is up. Nothing happens when it is up already.
        bool reconnectBus();

        // What a consumer of the module's output is: the run log, a TCP
        // client or a bus subscriber.
        enum class ConsumerKind { log, tcp, bus, local };
        // "log", "tcp", "bus" or "local".
        static char const* kindName(ConsumerKind kind) {
            switch (kind) {
                case ConsumerKind::log:
                    return "log";
                case ConsumerKind::tcp:
                    return "tcp";
                case ConsumerKind::bus:
                    return "bus";
                case ConsumerKind::local:
                    break;
            }
            return "local";
        }
        // One consumer of the module's output, as seen now.
        struct Consumer {
            std::string id;  // the peer's id: "client" (the run log), "telnet:<fd>", or a bus name
            ConsumerKind kind = ConsumerKind::log;
            std::string address;  // a TCP client's address and port; empty for the others
            Peer::Counters counters;
            unsigned long long queuedChunks;
            unsigned long long queuedBytes;
            std::chrono::steady_clock::time_point attachedAt;
        };
        // Every consumer, in id order.
        std::vector<Consumer> getConsumers() const;
        // Detaches the TCP client, bus subscriber or in-process consumer `id`
        // (a connection is closed). False, and nothing changes, for an id that
        // is not attached and for "client", the run log, which is no client.
        bool detach(std::string const& id);
        // Whether a consumer `id` is attached.
        bool hasConsumer(std::string const& id) const;

        // --- Consumers inside the host's process (see PeerLocal) ---

        // Attaches the in-process consumer `id`, `address` saying where it is.
        // False, and nothing changes, when the id is taken.
        bool attachLocal(std::string const& id, std::string const& address);
        // Appends to `out` at most `most` bytes of the output queued for the
        // in-process consumer `id` (see PeerLocal::take); 0 for none, or for an
        // id that is no such consumer.
        std::size_t takeLocalOutput(std::string const& id, std::string& out, std::size_t most);
        // Gives `bytes`, typed by the in-process consumer `id`, to the program
        // after what waits for it already; false, and nothing changes, for an
        // id that is no such consumer.
        bool typeLocalInput(std::string const& id, std::string const& bytes);
        // How many typed bytes wait for the program's terminal to take them.
        std::size_t typedInputWaiting() const { return bufConn2Child.size(); }

    private:
        void openListeningSocket(unsigned short port);
        void bindAndListen(unsigned short port);
        void openTerminal();
        void connectToBus();
        void retryBusConnection();
        void announceOnBus();
        bool manifestFits(std::string const& path, std::string const& machinearch) const;
        [[noreturn]] void startChild();
        void makeTerminalRaw();
        void closeTerminal();
        void closeDescriptors();
        void acceptConnection();
        void readTerminal();
        void writeTerminal();
        void serveBus();
        // Called by every operation that may change what addFds() registers:
        // lists the module once with the registry that keeps its descriptors
        // between turns (see Modules::addFdsCached), if one does.
        void noteChanged() const;

        // Where noteChanged() lists the module; set by the registry.
        struct ChangeNote {
            std::vector<std::size_t>* changed = nullptr;  // null: nobody keeps the descriptors
            std::size_t slot = 0;                         // the module's place in the registry
            bool listed = false;
        };
        mutable ChangeNote changeNote;

        std::string name;
        pid_t childpid;
        Proc& proc;
        // Plain descriptors, -1 when not open. stop() closes them without
        // forgetting their numbers, and a throwing constructor leaves them open.
        int serverfd;
        int master;
        int slave;
        // Plain owning pointer: a constructor that throws leaves the client allocated.
        VLPBusClient* bus;
        std::string bufConn2Child;
        Peers peers;
        PeerLog& runlog;

        friend class Modules;
        friend struct ::NXATestAccess;
    };

    // The registry and supervisor of all modules: creates them with their ports,
    // drops those whose manifest does not fit the machine, starts and stops their
    // children and fans the polling calls out to them in configuration order.
    class Modules {
    public:
        Modules(unsigned short port, unsigned long maxModules);
        ~Modules();
        Modules(Modules const&) = delete;
        Modules& operator=(Modules const&) = delete;

        // Replaces all modules by one per name: module k listens on port + k.
        // Names beyond maxModules are warned about and skipped.
        void configure(std::vector<std::string> const& names);
        // Drops every module whose manifest in `dir` does not allow it here.
        void scan(std::string const& dir);
        std::vector<std::string> getModuleNames() const;

        // Reaps ended children, throws IOException(EBUSY) "NXA process(es) still
        // running" if any is left, then starts every module's child.
        void run();
        // Destroys every module (ending its child) and empties the list.
        void stop();

        // The module called `name` (the first of that name), or null. Takes
        // time logarithmic in the number of modules.
        Module* find(std::string const& name) const;
        // Every module, in configuration order.
        std::vector<Module*> getModules() const;
        // Ends every module's program together: each gets SIGTERM at once, and
        // they share one grace time before SIGKILL (see Proc::stopAll), so
        // stopping many programs takes as long as stopping one. The modules
        // themselves stay; stop() and the destructor then have no child left
        // to wait for.
        void stopPrograms();

        void addFds(FdSet& rd, FdSet& wr) const;
        void handleInput(FdSet const& rd) const;
        void handleOutput(FdSet const& wr) const;

        // The same turn at a cost that follows the modules with something to
        // do rather than all modules, for hosts with many mostly idle ones.
        // addFdsCached() adds exactly the descriptors addFds() would add: the
        // registry keeps every module's descriptors from one turn to the next
        // and asks again only the modules that were served or called since
        // (any operation of a Module that may change them tells the registry).
        void addFdsCached(FdSet& rd, FdSet& wr);
        // Does what handleInput(rd) followed by handleOutput(wr) does, visiting
        // only the modules that have a descriptor set in `rd` or `wr`: first
        // handleInput(rd) of each of them, then handleOutput(wr) of each, in
        // configuration order (a module with nothing set does nothing in
        // either). The first exception leaves at once, as there.
        void handleReady(FdSet const& rd, FdSet const& wr);

        // Acts on kind 4 "71-NXAStartOutput"/"72-NXAStopOutput" (trace only) and on
        // kind 34 (text pushed to every module's peers). True when the message was
        // meant for the modules.
        bool handle(RouterMessage const& msg) const;
        void handleInput(SystemMessage const& msg) const;
        void addPeer(std::string const& name) const;
        void removePeer(std::string const& name) const;
        // Appends every module's run log, in list order, to `out`.
        void getRunLog(std::string& out) const;

    private:
        class ReadyIndex;
        // The index behind addFdsCached() and handleReady(), made by their
        // first call and rebuilt whenever the list changes.
        ReadyIndex& readyIndex();
        void forgetReadyIndex();

        unsigned short port;
        unsigned long maxModules;
        std::vector<std::unique_ptr<Module>> list;
        Proc proc;
        std::unique_ptr<ReadyIndex> ready;
        // The modules by name, made by find() after the list changed.
        mutable std::map<std::string, Module*> byName;
        mutable bool byNameMade = false;

        friend struct ::NXATestAccess;
    };

    // Trace level of the process: 0 INFO/WARNING/ERROR only; 1 adds DEBUG lines;
    // 2 and above add the detailed ones. Set by the constructor.
    static unsigned int debug;
    // Memory (bytes) from which a build runs two make jobs instead of one.
    static constexpr unsigned long joblimit = 536870912UL;

    static constexpr char NXA_KEY_ARCH[13] = "architecture";
    static constexpr char NXA_KEY_NAME[5] = "name";
    static constexpr char NXA_MANIFEST[9] = "Manifest";
    static constexpr char NXA_TMPDIR[9] = "/tmp/nxa";
    static constexpr char NXA_DEVEL_ZIP[18] = "/tmp/nxadevel.zip";
    static constexpr char NXA_BIN[9] = "nxadevel";
    static constexpr char NXA_ZIP[8] = "nxa.zip";
    // A module's bus name is this prefix followed by the module's name; its
    // bus connection goes to the broker on 127.0.0.1 at NXA_BUS_PORT.
    static constexpr char NXA_MODULE_BUS_PREFIX[11] = "NXAModule_";
    static constexpr unsigned short NXA_BUS_PORT = 20010;

    // packageDir: where unpack() looks for nxa.zip; modulesDir: where modules are
    // installed and their manifests checked; workDir: the build workspace; the
    // fourth argument is ignored; port: first module's TCP port; maxModules: most
    // modules; spareText: kept, unused; debug: the trace level. Throws
    // std::logic_error for a null directory.
    NXAClient(char const* packageDir, char const* modulesDir, char const* workDir, unsigned long,
              unsigned short port, unsigned long maxModules, std::string const& spareText,
              unsigned int debug);
    // Stops every module.
    virtual ~NXAClient();
    NXAClient(NXAClient const&) = delete;
    NXAClient& operator=(NXAClient const&) = delete;

    // Installs the package (unpack()), then starts the modules' children.
    void run();
    // Stops and removes every module.
    void stop();
    void addFds(FdSet& rd, FdSet& wr) const;
    bool handle(RouterMessage const& msg) const;
    void handleInput(FdSet const& rd) const;
    void handleOutput(FdSet const& wr) const;
    // The turn at the cost of what is ready (see Modules::addFdsCached and
    // Modules::handleReady): for a host that waits with waitFds, whose cost
    // follows the ready descriptors too.
    void addFdsCached(FdSet& rd, FdSet& wr);
    void handleReady(FdSet const& rd, FdSet const& wr);
    // Replaces `out` by the run logs of all modules, in configuration order.
    void getRunLog(std::string& out) const;
    std::vector<std::string> getModulesInstalled() const;

    // Builds the source archive `src` into the development package
    // "/tmp/nxadevel.zip"; unzip's and make's output is appended to `log`.
    // Leaves the working directory in workDir/src.
    void build(std::string const& src, std::string& log, bool force);
    // Runs make on the shared module Makefile with the fixed build variables.
    void make(std::string& log, std::vector<std::string> const& args);
    // Zips the workspace's sources into `dest`.
    void getSources(std::string const& dest, std::string& log);
    // Links workDir/src/<name> to the shared data file of that name.
    void createFile(std::string const& name);
    // Writes dir/Manifest and zips `dir` to "/tmp/nxadevel.zip". `log` is unused.
    void makePackage(std::string const& dir, std::string& log);
    // Installs packageDir/nxa.zip into modulesDir and rescans the modules.
    void unpack();

private:
    std::string packageDir;
    std::string modulesDir;
    std::string workDir;
    std::string spareText;

public:
    // The module registry; the host configures it.
    Modules modules;

private:
    unsigned long totalRam;

    friend struct ::NXATestAccess;
};
