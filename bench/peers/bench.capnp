@0xc4f1d5a2b8e37096;

using Cxx = import "/capnp/c++.capnp";
$Cxx.namespace("BenchRpc");

interface Bench {
  request @0 (text :Text) -> (text :Text);
  note @1 (text :Text) -> stream;
}
