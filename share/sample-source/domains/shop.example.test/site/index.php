<?php echo "Shop of example.test"; ?>
