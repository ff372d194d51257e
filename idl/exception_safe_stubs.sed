# The IDL compiler's code for taking a value out of an any loses the half-read value when reading it
# raises an exception, which a peer can bring about at will. Here an owner holds it meanwhile.
1i #include <memory>
/_unmarshal_fn\(cdrStream/,/^}/ {
  s/^  (.*)\* _p = new (.*);$/  std::unique_ptr<\1> _p(new \2);/
  s/^  _v = _p;$/  _v = _p.release();/
}
