// A server in Rust: prints each message of this user's clients, and answers it with status 0. It
// makes no notifications, so the switch for them is a message like any other.
//     serve NAME
mod tovik;
use std::fs::File;
use std::io::{Read, Result, Write};
use std::os::unix::ffi::OsStrExt;

fn serve(mut client: File) -> Result<()> {
    if tovik::credentials(&client)?.uid != tovik::own_uid() {
        return Ok(());
    }
    let mut record = [0; 4096];
    loop {
        match client.read(&mut record)? {
            0 => return Ok(()),
            length => println!("{}", String::from_utf8_lossy(&record[..length])),
        }
        client.write_all(br#"{"type":"reply","status":0}"#)?;
    }
}

fn main() -> Result<()> {
    let words: Vec<_> = std::env::args_os().collect();
    if words.len() != 2 {
        eprintln!("usage: serve NAME");
        std::process::exit(2);
    }
    let listener = tovik::listen_as(words[1].as_bytes())?;
    loop {
        let client = tovik::accept(&listener)?;
        std::thread::spawn(move || serve(client));
    }
}
