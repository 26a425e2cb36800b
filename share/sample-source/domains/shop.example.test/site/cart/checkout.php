<?php
$total = 0;
foreach ($_POST['items'] ?? [] as $price) { $total += $price; }
echo "Total: $total";
