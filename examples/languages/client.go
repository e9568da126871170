// A client in Go with the standard library alone: sends one message, prints the answer.
//
//	client NAME '{"command":"interval","seconds":2}'
package main

import (
	"fmt"
	"log"
	"net"
	"os"
	"strings"
)

func main() {
	log.SetFlags(0)
	if len(os.Args) != 3 || len(os.Args[1]) > 106 {
		log.Println("usage: client NAME MESSAGE")
		os.Exit(2)
	}
	// Go writes the leading NUL as "@". Zeros follow the name to the end of the 108 bytes.
	path := "@" + os.Args[1] + strings.Repeat("\x00", 107-len(os.Args[1]))
	connection, err := net.Dial("unixpacket", path)
	if err != nil {
		log.Fatal("client: cannot connect: ", err)
	}
	defer connection.Close()
	if _, err := connection.Write([]byte(os.Args[2])); err != nil { // one write, one record
		log.Fatal("client: not sent: ", err)
	}
	answer := make([]byte, 4096)
	length, err := connection.Read(answer)
	if err != nil || length == 0 {
		log.Fatal("client: no answer")
	}
	fmt.Printf("%s\n", answer[:length])
}
