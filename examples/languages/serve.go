// A server in Go: prints each message of this user's clients, and answers it with status 0. It makes
// no notifications, so the switch for them is a message like any other.
//
//	serve NAME
package main

import (
	"fmt"
	"log"
	"net"
	"os"
	"strings"
	"syscall"
)

func isAdmitted(client *net.UnixConn) bool {
	admitted := false
	if raw, err := client.SyscallConn(); err == nil {
		raw.Control(func(fd uintptr) { // as the kernel noted it when the client connected
			peer, err := syscall.GetsockoptUcred(int(fd), syscall.SOL_SOCKET, syscall.SO_PEERCRED)
			admitted = err == nil && int(peer.Uid) == os.Geteuid()
		})
	}
	return admitted
}

func serve(client *net.UnixConn) {
	defer client.Close()
	record := make([]byte, 4096)
	for isAdmitted(client) {
		length, err := client.Read(record)
		if err != nil || length == 0 {
			return
		}
		fmt.Printf("%s\n", record[:length])
		if _, err := client.Write([]byte(`{"type":"reply","status":0}`)); err != nil {
			return
		}
	}
}

func main() {
	log.SetFlags(0)
	if len(os.Args) != 2 || len(os.Args[1]) > 106 {
		log.Println("usage: serve NAME")
		os.Exit(2)
	}
	path := "@" + os.Args[1] + strings.Repeat("\x00", 107-len(os.Args[1]))
	listener, err := net.ListenUnix("unixpacket", &net.UnixAddr{Name: path, Net: "unixpacket"})
	if err != nil {
		log.Fatal("serve: cannot listen: ", err)
	}
	for {
		client, err := listener.AcceptUnix()
		if err != nil {
			log.Fatal("serve: cannot accept: ", err)
		}
		go serve(client)
	}
}
