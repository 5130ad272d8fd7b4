// The tests' one window on the library's private state. Each area adds its
// accessors in its own marked section of this one struct.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "nxaclient.h"

struct NXATestAccess {
    // ---- Output fan-out: Peer, Peers, PeerTelnet ---------------------------

    // The peer's queue, oldest block first.
    static std::deque<NXAClient::bufblock_t>& queue(NXAClient::Peer& peer) { return peer.queue; }
    // The module a peer refers to.
    static NXAClient::Module const& module(NXAClient::Peer const& peer) { return peer.module; }
    // The peer set's map from id to peer, in id order.
    static std::map<std::string, std::unique_ptr<NXAClient::Peer>>& peerMap(NXAClient::Peers& set) {
        return set.peers;
    }
    // The module the peer set belongs to.
    static NXAClient::Module const& module(NXAClient::Peers const& set) { return set.module; }
    // The telnet peer's socket, -1 once closed.
    static int fd(NXAClient::PeerTelnet const& peer) { return peer.fd; }

    // ---- Module ------------------------------------------------------------

    // The module's child, -1 when none.
    static pid_t childpid(NXAClient::Module const& module) { return module.childpid; }
    // The module's listening socket.
    static int serverfd(NXAClient::Module const& module) { return module.serverfd; }
    // Whether the module has told the registry's kept descriptors of a change
    // not yet taken (every visit of the turn's handlers does).
    static bool listedAsChanged(NXAClient::Module const& module) { return module.changeNote.listed; }
    // The two sides of the module's terminal, -1 once closed.
    static int master(NXAClient::Module const& module) { return module.master; }
    static int slave(NXAClient::Module const& module) { return module.slave; }
    // Input waiting to be written to the module's terminal.
    static std::string& bufConn2Child(NXAClient::Module& module) { return module.bufConn2Child; }

    // ---- Module: the fields the peers use ----------------------------------

    // The module's peer set.
    static NXAClient::Peers& peers(NXAClient::Module& module) { return module.peers; }
    // The module's bus client (owned by the module).
    static VLPBusClient* bus(NXAClient::Module& module) { return module.bus; }

    // ---- Registry and facade -----------------------------------------------

    // The registry's modules, in list order.
    static std::vector<std::unique_ptr<NXAClient::Module>>& list(NXAClient::Modules& modules) {
        return modules.list;
    }
    // The registry's process object.
    static Proc& proc(NXAClient::Modules& modules) { return modules.proc; }
};
