// Prints a server's notifications, and connects again a second after each loss.
//     follow NAME
mod tovik;
use std::io::{ErrorKind, Read, Result, Write};
use std::os::unix::ffi::OsStrExt;
use std::{thread, time::Duration};

fn follow(name: &[u8]) -> Result<()> {
    let mut connection = tovik::open(name)?;
    connection.write_all(br#"{"command":"set","notification":true}"#)?;
    let mut record = [0; 4096];
    let mut replied = false; // the first record is the switch's reply
    loop {
        match connection.read(&mut record)? {
            0 => return Err(ErrorKind::UnexpectedEof.into()),
            length if replied => println!("{}", String::from_utf8_lossy(&record[..length])),
            _ => replied = true,
        }
    }
}

fn main() {
    let words: Vec<_> = std::env::args_os().collect();
    if words.len() != 2 {
        eprintln!("usage: follow NAME");
        std::process::exit(2);
    }
    while let Err(error) = follow(words[1].as_bytes()) {
        eprintln!("follow: {error}");
        thread::sleep(Duration::from_secs(1));
    }
}
