//! The sockets that Rust's standard library does not have, for the samples next to this file. Reads
//! and writes of the files are records.
#![allow(dead_code)]
use std::fs::File;
use std::io::{Error, ErrorKind, Result};
use std::os::unix::io::{AsRawFd, FromRawFd};

const AF_UNIX: u16 = 1;
const SOCK_CLOEXEC: i32 = 0o2000000;
const SOCK_SEQPACKET_CLOEXEC: i32 = 5 | SOCK_CLOEXEC;
const SOL_SOCKET: i32 = 1;
const SO_PEERCRED: i32 = 17;
const ADDRESS_SIZE: u32 = 110;

#[repr(C)]
struct Address {
    family: u16,
    path: [u8; 108], // a NUL, the name, and zeros to the end: all of it counts
}
#[repr(C)]
#[derive(Default)]
pub struct Credentials {
    pub pid: i32,
    pub uid: u32,
    pub gid: u32,
}
extern "C" {
    fn socket(domain: i32, kind: i32, protocol: i32) -> i32;
    fn connect(fd: i32, address: *const Address, size: u32) -> i32;
    fn bind(fd: i32, address: *const Address, size: u32) -> i32;
    fn listen(fd: i32, backlog: i32) -> i32;
    fn accept4(fd: i32, address: *mut Address, size: *mut u32, flags: i32) -> i32;
    fn getsockopt(fd: i32, level: i32, name: i32, value: *mut Credentials, size: *mut u32) -> i32;
    fn geteuid() -> u32;
}

fn address(name: &[u8]) -> Result<Address> {
    let mut address = Address { family: AF_UNIX, path: [0; 108] };
    let room = address.path[1..107].get_mut(..name.len()).ok_or(ErrorKind::InvalidInput)?;
    room.copy_from_slice(name);
    Ok(address)
}

fn checked(result: i32) -> Result<i32> {
    if result < 0 { Err(Error::last_os_error()) } else { Ok(result) }
}

fn new_socket() -> Result<File> {
    Ok(unsafe { File::from_raw_fd(checked(socket(AF_UNIX.into(), SOCK_SEQPACKET_CLOEXEC, 0))?) })
}

pub fn open(name: &[u8]) -> Result<File> {
    let (connection, address) = (new_socket()?, address(name)?);
    checked(unsafe { connect(connection.as_raw_fd(), &address, ADDRESS_SIZE) })?;
    Ok(connection)
}

pub fn listen_as(name: &[u8]) -> Result<File> {
    let (listener, address) = (new_socket()?, address(name)?);
    checked(unsafe { bind(listener.as_raw_fd(), &address, ADDRESS_SIZE) })?;
    checked(unsafe { listen(listener.as_raw_fd(), 5) })?;
    Ok(listener)
}

pub fn accept(listener: &File) -> Result<File> {
    let (address, size) = (std::ptr::null_mut(), std::ptr::null_mut()); // which nobody wants
    let fd = unsafe { accept4(listener.as_raw_fd(), address, size, SOCK_CLOEXEC) };
    Ok(unsafe { File::from_raw_fd(checked(fd)?) })
}

/// Who is at the other end, as the kernel noted it when the connection was made.
pub fn credentials(connection: &File) -> Result<Credentials> {
    let (mut peer, mut size) = (Credentials::default(), 12);
    let fd = connection.as_raw_fd();
    checked(unsafe { getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &mut peer, &mut size) })?;
    Ok(peer)
}

/// The user that this process acts as.
pub fn own_uid() -> u32 {
    unsafe { geteuid() }
}
