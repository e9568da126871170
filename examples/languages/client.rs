// A client in Rust with the standard library alone: sends one message, prints the answer.
//     client NAME '{"command":"interval","seconds":2}'
use std::fs::File;
use std::io::{Error, ErrorKind, Read, Result, Write};
use std::os::unix::io::FromRawFd;

const AF_UNIX: u16 = 1;
const SOCK_SEQPACKET_CLOEXEC: i32 = 5 | 0o2000000;
#[repr(C)]
struct Address {
    family: u16,
    path: [u8; 108], // a NUL, the name, and zeros to the end: all of it counts
}
extern "C" {
    fn socket(domain: i32, kind: i32, protocol: i32) -> i32;
    fn connect(fd: i32, address: *const Address, size: u32) -> i32;
}

fn open(name: &str) -> Result<File> {
    let mut address = Address { family: AF_UNIX, path: [0; 108] };
    let room = address.path[1..107].get_mut(..name.len()).ok_or(ErrorKind::InvalidInput)?;
    room.copy_from_slice(name.as_bytes());
    let fd = unsafe { socket(AF_UNIX.into(), SOCK_SEQPACKET_CLOEXEC, 0) };
    if fd < 0 || unsafe { connect(fd, &address, 110) } < 0 {
        return Err(Error::last_os_error());
    }
    Ok(unsafe { File::from_raw_fd(fd) })
}

fn main() -> Result<()> {
    let words: Vec<String> = std::env::args().collect();
    let mut connection = open(&words[1])?;
    connection.write_all(words[2].as_bytes())?; // one write, one record
    let mut answer = [0; 4096];
    match connection.read(&mut answer)? {
        0 => Err(ErrorKind::UnexpectedEof.into()), // the end of the connection, never a message
        length => Ok(println!("{}", String::from_utf8_lossy(&answer[..length]))),
    }
}
