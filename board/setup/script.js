(function () {
  var d = document, form = d.forms[0], pass = d.getElementById('pass'), show = d.getElementById('show');
  if (d.body.dataset.phase === 'trying')
    setInterval(function () {
      fetch('/?phase', { cache: 'no-store' }).then(function (r) { return r.text(); }).then(function (t) {
        if (/^(idle|failed|connected)/.test(t)) location.replace('/');
      }).catch(function () {});
    }, 3000);
  if (!form) return;
  show.parentNode.hidden = false;
  show.onchange = function () { pass.type = show.checked ? 'text' : 'password'; };
  pass.oninput = function () {
    pass.removeAttribute('aria-invalid');
    d.getElementById('e-pass').textContent = '';
  };
  form.onsubmit = function () {
    var net = form.querySelector('[name=net]:checked'), kind = net ? net.dataset.kind : '';
    var n = new TextEncoder().encode(pass.value).length, hex = /^[0-9a-f]+$/i.test(pass.value);
    var psk = (n > 7 && n < 64) || (n === 64 && hex), wep = n === 5 || n === 13 || ((n === 10 || n === 26) && hex);
    var well = { open: true, psk: psk, wep: wep, any: psk || wep || n === 0 }[kind];
    var bad = d.getElementById('e-pass');
    if (well === false) {
      bad.textContent = bad.dataset[kind];
      pass.setAttribute('aria-invalid', 'true');
      pass.focus();
      return false;
    }
    show.checked = false;
    pass.type = 'password';
    form.querySelector('button').disabled = true;
  };
  onpageshow = function () { form.querySelector('button').disabled = false; };
})();
