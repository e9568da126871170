// Prints a server's notifications, and connects again a second after each loss.
//
//	follow NAME
package main

import (
	"errors"
	"fmt"
	"log"
	"net"
	"os"
	"strings"
	"time"
)

func follow(path string) error {
	connection, err := net.Dial("unixpacket", path)
	if err != nil {
		return err
	}
	defer connection.Close()
	if _, err := connection.Write([]byte(`{"command":"set","notification":true}`)); err != nil {
		return err
	}
	record := make([]byte, 4096)
	for replied := false; ; replied = true { // the first record is the switch's reply
		length, err := connection.Read(record)
		if err != nil || length == 0 {
			return errors.New("the server has closed the connection")
		}
		if replied {
			fmt.Printf("%s\n", record[:length])
		}
	}
}

func main() {
	log.SetFlags(0)
	if len(os.Args) != 2 || len(os.Args[1]) > 106 {
		log.Println("usage: follow NAME")
		os.Exit(2)
	}
	for path := "@" + os.Args[1] + strings.Repeat("\x00", 107-len(os.Args[1])); ; time.Sleep(time.Second) {
		log.Println("follow:", follow(path))
	}
}
