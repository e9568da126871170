// A client in Rust with the standard library alone: sends one message, prints the answer.
//     client NAME '{"command":"interval","seconds":2}'
mod tovik;
use std::io::{ErrorKind, Read, Result, Write};
use std::os::unix::ffi::OsStrExt;

fn main() -> Result<()> {
    let words: Vec<_> = std::env::args_os().collect();
    if words.len() != 3 {
        eprintln!("usage: client NAME MESSAGE");
        std::process::exit(2);
    }
    let mut connection = tovik::open(words[1].as_bytes())?;
    connection.write_all(words[2].as_bytes())?; // one write, one record
    let mut answer = [0; 4096];
    match connection.read(&mut answer)? {
        0 => Err(ErrorKind::UnexpectedEof.into()), // the end of the connection, never a message
        length => Ok(println!("{}", String::from_utf8_lossy(&answer[..length]))),
    }
}
